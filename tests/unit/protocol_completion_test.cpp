// The completion senders' mappings, prepare's rollback after a fan-out without an answer,
// and the close: its port search, its retry while the registry cannot be attached, and
// what it leaves behind. The fan-out is replaced by a script here where a test sets one.
#include <xajms/xajms.h>

#include <dlfcn.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "support/fakes.h"
#include "support/loopback.h"
#include "support/orlom.h"
#include "support/scripted_listener.h"

namespace {

using namespace xajms::test;

// The fan-out's scripted results, and the request codes it was called with.
std::deque<int> fanOutResults;
std::vector<int> fanOutTypes;
bool fanOutScripted = false;

#define ENTER_PRIVATE_ORLOM()                                 \
    if (const auto why = enterPrivateOrlom(); !why.empty()) { \
        GTEST_SKIP() << why;                                  \
    }

}  // namespace

// Interposed over the library's fan-out, which the senders reach through the dynamic
// linker; forwards to it while no script is set.
extern "C" int callEGListeners_jms(const XID *xid, int rmid, long flags, int msgType) {
    if (!fanOutScripted) {
        using Fn = int (*)(const XID *, int, long, int);
        static auto real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "callEGListeners_jms"));
        return real(xid, rmid, flags, msgType);
    }
    fanOutTypes.push_back(msgType);
    const int rc = fanOutResults.empty() ? 0 : fanOutResults.front();
    if (!fanOutResults.empty()) {
        fanOutResults.pop_front();
    }
    return rc;
}

namespace {

constexpr int kPrepare = 0x2002;
constexpr int kCommit = 0x2003;
constexpr int kRollback = 0x2004;
constexpr int kForget = 0x2008;

TEST(Completion, SendersMapTheFanOutResult) {
    using Sender = int (*)(const XID *, int, long);
    struct Case {
        const char *name;
        Sender sender;
        std::vector<int> results;  // what the fan-out returns, call by call
        int expected;
        std::vector<int> types;  // the request codes it was asked to send
    } cases[] = {
        {"prepare rdonly", sendXAPrepare_jms, {3}, 3, {kPrepare}},
        {"prepare rmerr", sendXAPrepare_jms, {-3}, -7, {kPrepare}},
        {"prepare rollback code", sendXAPrepare_jms, {101}, 101, {kPrepare}},
        {"prepare notA", sendXAPrepare_jms, {-4}, -4, {kPrepare}},
        {"prepare no answer, rolled back", sendXAPrepare_jms, {-99, 0}, 106, {kPrepare, kRollback}},
        {"prepare no answer twice", sendXAPrepare_jms, {-99, -99}, -7, {kPrepare, kRollback}},
        {"prepare no answer, rollback rmerr",
         sendXAPrepare_jms,
         {-99, -3},
         -3,
         {kPrepare, kRollback}},
        {"prepare no answer, rollback rmfail",
         sendXAPrepare_jms,
         {-99, -7},
         -7,
         {kPrepare, kRollback}},
        {"commit rmerr", sendXACommit_jms, {-3}, -7, {kCommit}},
        {"commit no answer", sendXACommit_jms, {-99}, -7, {kCommit}},
        {"commit notA", sendXACommit_jms, {-4}, -4, {kCommit}},
        {"rollback rmerr", sendXARollback_jms, {-3}, -7, {kRollback}},
        {"forget no answer", sendXAForget_jms, {-99}, -7, {kForget}},
        {"forget proto", sendXAForget_jms, {-6}, -6, {kForget}},
    };
    const XID xid{};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        fanOutResults.assign(c.results.begin(), c.results.end());
        fanOutTypes.clear();
        fanOutScripted = true;
        const int rc = c.sender(&xid, 1, 0);
        fanOutScripted = false;
        EXPECT_EQ(rc, c.expected);
        EXPECT_EQ(fanOutTypes, c.types);
    }
}

// While the registry cannot be attached the close asks again at once: no sleep, no count.
TEST(Close, RetriesWithoutPauseWhileTheRegistryCannotBeAttached) {
    ENTER_PRIVATE_ORLOM();
    ScriptedListener recovery({});
    writeRegistry({{1, recovery.port()}});
    int refusals = 12;  // more than the five counted failures of a missing port
    int registryOpens = 0;
    resetSleeps();
    setOpen([&](const char *path, int flags, mode_t mode) {
        if (std::strcmp(path, "/var/orlom/XA_SWITCH_MMF") == 0) {
            registryOpens += 1;
            if (refusals > 0) {
                refusals -= 1;
                errno = ENOENT;
                return -1;
            }
        }
        return realOpen(path, flags, mode);
    });
    const int rc = sendXAClose_jms("Cleanup Java Process", 1, 0);
    clearScripts();

    EXPECT_EQ(rc, 0);
    EXPECT_EQ(registryOpens, 13);
    EXPECT_EQ(sleepCalls(), 0);
    EXPECT_EQ(recovery.requests(1).size(), 1u);
}

// A close that was written leaves the recovery port dead, its sockets closed and, in a
// process that has prepared, the pool lock deleted.
TEST(Close, SentCloseMarksThePortDeadAndDropsItsSockets) {
    ENTER_PRIVATE_ORLOM();
    occupyDescriptorZero();  // the pool's clears close descriptor 0 of emptied slots
    ScriptedListener recovery({});
    writeRegistry({{1, recovery.port()}});
    flSocketBrokerHasDeployed_jms = 1;
    initializeConnectionPoolLock_jms();

    EXPECT_EQ(sendXAClose_jms("Cleanup Java Process", 1, 0), 0);

    EXPECT_EQ(recovery.requests(1).size(), 1u);
    EXPECT_EQ(registryMode(0), 3);
    EXPECT_EQ(flConnectionPoolInitialized_jms, 0);
    for (const PortRow &row : processConnectionPool_jms.row) {
        for (const SocketSlot &slot : row.slot) {
            EXPECT_TRUE(row.port != recovery.port() || slot.sockfd == 0);
        }
    }
}

}  // namespace
