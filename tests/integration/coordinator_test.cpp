// The library as a coordinator drives it: loaded with dlopen, started with OrloStart, and
// called only through the switch record, against xajms-listener processes registered in the
// test's private /var/orlom and the test companion library.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <cctype>
#include <sstream>
#include <string>
#include <vector>

#include "support/fakes.h"
#include "support/listener_process.h"
#include "support/loopback.h"
#include "support/orlom.h"
#include "support/pellux.h"
#include "support/trace_file.h"

namespace {

using xajms::test::ListenerProcess;
using Args = std::vector<std::string>;

// The switch as a coordinator finds it: the library loaded by path, its start function.
xa_switch_t *loadSwitch() {
    void *library = dlopen(XAJMS_LIBRARY_PATH, RTLD_NOW);
    if (library == nullptr) {
        return nullptr;
    }
    auto start = reinterpret_cast<xa_switch_t *(*)()>(dlsym(library, "OrloStart"));
    return start != nullptr ? start() : nullptr;
}

XID makeXid() {
    XID xid{};
    xid.formatID = 4711;
    xid.gtrid_length = 7;
    xid.bqual_length = 7;
    std::memcpy(xid.data, "gtrid01bqual01", 14);
    return xid;
}

// A listener that never answers costs a fraction of a second: every wait of the library is
// cut to 300 ms of real time and then reported as expired.
void shortenWaits() {
    xajms::test::setPoll([](pollfd *fds, nfds_t count, int timeout) {
        return xajms::test::realPoll(fds, count, std::min(timeout, 300));
    });
}

// The type of the log line "#n TYPE rmid=...", or "(none)".
std::string typeOf(const std::optional<std::string> &line) {
    if (!line) {
        return "(none)";
    }
    std::istringstream words(*line);
    std::string number;
    std::string type;
    words >> number >> type;
    return type;
}

class Coordinator : public ::testing::Test {
  protected:
    void SetUp() override {
        if (xajms::test::listenerPath().empty()) {
            GTEST_SKIP() << "xajms-listener is not part of this build";
        }
        const std::string why = xajms::test::enterPrivateOrlom();
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
        // Emptied pool slots close descriptor 0; keep it away from the listeners' pipes.
        xajms::test::occupyDescriptorZero();
        sw = loadSwitch();
        ASSERT_NE(sw, nullptr);
    }
    ListenerProcess &listen(const Args &args) {
        listeners.push_back(std::make_unique<ListenerProcess>(args));
        EXPECT_TRUE(listeners.back()->started());
        return *listeners.back();
    }

    xa_switch_t *sw = nullptr;
    std::vector<std::unique_ptr<ListenerProcess>> listeners;
    XID xid = makeXid();
    char openString[16] = "qm=QM1";
};

TEST_F(Coordinator, TwoPhaseCommitReachesTheBrokerAndThePendingListener) {
    ListenerProcess &broker = listen({"--mode", "broker"});
    ListenerProcess &pending = listen({"--mode", "pending"});

    EXPECT_EQ(sw->xa_open_entry(openString, 1, TMNOFLAGS), XA_OK);
    EXPECT_EQ(sw->xa_prepare_entry(&xid, 1, TMNOFLAGS), XA_OK);
    EXPECT_EQ(sw->xa_commit_entry(&xid, 1, TMNOFLAGS), XA_OK);
    EXPECT_EQ(sw->xa_close_entry(openString, 1, TMNOFLAGS), XA_OK);

    for (ListenerProcess *listener : {&broker, &pending}) {
        EXPECT_EQ(listener->nextLine(),
                  "#1 prepare rmid=1 flags=0x0000000000000000 xid=0x1267:67747269643031:"
                  "627175616c3031 -> 0");
        EXPECT_EQ(typeOf(listener->nextLine()), "commit");
    }
}

TEST_F(Coordinator, ListenerAnswersReachTheCoordinatorMapped) {
    struct Case {
        const char *what;
        Args listener;
        int (*xa_switch_t::*entry)(XID *, int, long);
        int expected;
    } cases[] = {
        {"rollback after prepare", {"--rollback", "0"}, &xa_switch_t::xa_rollback_entry, XA_OK},
        {"commit of a finished transaction",
         {"--commit", "-4"},
         &xa_switch_t::xa_commit_entry,
         XA_OK},
        {"commit failing in the listener",
         {"--commit", "-3"},
         &xa_switch_t::xa_commit_entry,
         XAER_RMFAIL},
        {"read-only prepare", {"--prepare", "3"}, &xa_switch_t::xa_prepare_entry, XA_RDONLY},
        {"forget refused", {"--forget", "-6"}, &xa_switch_t::xa_forget_entry, XAER_RMFAIL},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        listeners.clear();
        ListenerProcess &listener = listen(c.listener);
        EXPECT_EQ((sw->*c.entry)(&xid, 1, TMNOFLAGS), c.expected);
        EXPECT_TRUE(listener.nextLine().has_value());
        EXPECT_EQ(sw->xa_close_entry(openString, 1, TMNOFLAGS), XA_OK);  // empties the pool
    }
}

TEST_F(Coordinator, ListenerThatNeverAnswersFailsTheCommitAndItsSocketIsReplaced) {
    ListenerProcess &listener = listen({"--never", "1"});
    shortenWaits();
    EXPECT_EQ(sw->xa_commit_entry(&xid, 1, TMNOFLAGS), XAER_RMFAIL);
    EXPECT_EQ(sw->xa_commit_entry(&xid, 1, TMNOFLAGS), XA_OK);  // a new connection answers
    xajms::test::clearScripts();
    EXPECT_EQ(typeOf(listener.nextLine()), "commit");
    EXPECT_EQ(typeOf(listener.nextLine()), "commit");
    const PortRow &row = processConnectionPool_jms.row[0];
    EXPECT_EQ(row.port, listener.port());
    EXPECT_EQ(row.rows, 1);
    EXPECT_EQ(row.slot[0].inUse, 0);
}

TEST_F(Coordinator, RecoverReportsNothingAndAsksOnlyLiveBrokers) {
    XID found[8] = {};
    ListenerProcess &recovery = listen({"--mode", "recovery", "--xid", "1:61:62"});
    EXPECT_EQ(sw->xa_recover_entry(found, 8, 1, TMSTARTRSCAN | TMENDRSCAN), 0);
    recovery.stop();
    EXPECT_EQ(recovery.nextLine(100), std::nullopt);  // nobody was asked

    ListenerProcess &broker = listen({"--mode", "broker", "--xid", "1:61:62"});
    EXPECT_EQ(sw->xa_recover_entry(found, 8, 1, TMSTARTRSCAN | TMENDRSCAN), 0);
    EXPECT_EQ(typeOf(broker.nextLine()), "recover");
}

TEST_F(Coordinator, CompleteIsRefused) {
    int handle = 0;
    int result = 0;
    EXPECT_EQ(sw->xa_complete_entry(&handle, &result, 1, TMNOFLAGS), XAER_RMFAIL);
}

TEST_F(Coordinator, BrokerProcessReachesJavaForOpenStartAndEnd) {
    xajms::test::Pellux pellux;
    ASSERT_TRUE(pellux.loaded());
    reinterpret_cast<long (*)()>(dlsym(RTLD_DEFAULT, "ZJavaInitSwitchJMS"))();
    struct Case {
        int open, start, end;
        int opened, started, ended;
    } cases[] = {
        {0, 0, 0, XA_OK, XA_OK, XA_OK},
        {XAER_RMERR, XAER_PROTO, 7, XAER_RMERR, XAER_PROTO, XA_RBROLLBACK},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.open);
        pellux.answer(c.open, c.start, c.end);
        EXPECT_EQ(sw->xa_open_entry(openString, 2, TMNOFLAGS), c.opened);
        EXPECT_EQ(sw->xa_start_entry(&xid, 2, TMNOFLAGS), c.started);
        EXPECT_EQ(sw->xa_end_entry(&xid, 2, TMSUCCESS), c.ended);
        const auto calls = pellux.calls();
        ASSERT_EQ(calls.size(), 3U);
        EXPECT_STREQ(calls[0].openstring, "qm=QM1");
        EXPECT_EQ(std::memcmp(&calls[1].xid, &xid, sizeof xid), 0);
        EXPECT_EQ(calls[2].flags, TMSUCCESS);
    }
}

// Replaces each number (decimal, or hex digits) that follows `after` by `name`: only the
// number `only` when one is given, and only numbers of at least `shortest` digits.
void replaceNumber(std::string &line, const std::string &after, const std::string &name,
                   bool hex = false, const std::string &only = "", size_t shortest = 1) {
    const auto isDigit = [hex](char c) {
        return std::isdigit(static_cast<unsigned char>(c)) != 0 ||
               (hex && std::isxdigit(static_cast<unsigned char>(c)) != 0);
    };
    for (size_t at = line.find(after); at != std::string::npos; at = line.find(after, at)) {
        const size_t begin = at + after.size();
        size_t end = begin;
        while (end < line.size() && isDigit(line[end])) {
            ++end;
        }
        if (end - begin >= shortest && (only.empty() || line.substr(begin, end - begin) == only)) {
            line.replace(begin, end - begin, name);
            end = begin + name.size();
        }
        at = std::max(end, at + 1);
    }
}

// Replaces what differs from run to run (the listener's port and pid, socket descriptors,
// the address of the mapping) with fixed names.
std::vector<std::string> normalised(std::vector<std::string> lines, const ListenerProcess &l) {
    for (std::string &line : lines) {
        for (const char *before : {"port ", "port=", "port = ", "port  = "}) {
            replaceNumber(line, before, "PORT", false, std::to_string(l.port()));
        }
        replaceNumber(line, "pid = ", "LPID", false, std::to_string(l.pid()));
        for (const char *before : {"sockfd ", "sockfd=", "sockfd = ", "sokfd=", "Sockfd=",
                                   "closing socket "}) {
            replaceNumber(line, before, "FD");
        }
        for (const char *before : {"shared_stuff = ", "attached at ", "process at "}) {
            replaceNumber(line, before, "ADDRESS", true, "", 5);
        }
    }
    return lines;
}

TEST_F(Coordinator, QueueManagerRunTracesBothHalvesAsTheGoldenFile) {
    xajms::test::TempDir dir;
    const std::string prefix = dir.path() + "/qm";
    setenv("XAJMS_TRACEFILE", prefix.c_str(), 1);
    ListenerProcess &listener = listen({"--mode", "broker", "--name", "EG1"});
    xajms::test::freezeTraceColumns();

    sw = loadSwitch();
    sw->xa_open_entry(openString, 1, TMNOFLAGS);
    sw->xa_prepare_entry(&xid, 1, TMNOFLAGS);
    sw->xa_commit_entry(&xid, 1, TMNOFLAGS);
    sw->xa_close_entry(openString, 1, TMNOFLAGS);

    const auto actual = normalised(xajms::test::traceLines(prefix), listener);
    const std::string golden = std::string(XAJMS_TEST_DATA) + "/golden/queue_manager_run.txt";
    if (std::getenv("XAJMS_UPDATE_GOLDEN") != nullptr) {
        std::ofstream out(golden);
        for (const std::string &line : actual) {
            out << line << '\n';
        }
    }
    EXPECT_EQ(actual, xajms::test::fileLines(golden));
}

}  // namespace
