// The fan-out against scripted listeners on loopback sockets: the combine table, the early
// stop on a failed write, dead-port marking, a missing registry, and its trace lines.
#include <xajms/xajms.h>

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/fakes.h"
#include "support/loopback.h"
#include "support/orlom.h"
#include "support/scripted_listener.h"
#include "support/trace_file.h"

namespace {

using namespace xajms::test;

constexpr int kBroker = 2;
constexpr int kDead = 3;
constexpr int kCommit = 0x2003;
constexpr int kNone = 1000;       // a port that refuses connections
constexpr int kSilent = 1001;     // never answers (its poll times out at once)
constexpr int kCloses = 1002;     // closes the connection instead of answering
constexpr int kSendFails = 1003;  // the pooled socket to it can no longer be written
constexpr int kNotAsked = 1004;   // after a failed write: must never be contacted

#define ENTER_PRIVATE_ORLOM()                                 \
    if (const auto why = enterPrivateOrlom(); !why.empty()) { \
        GTEST_SKIP() << why;                                  \
    }

XID sampleXid() {
    XID xid{};
    xid.formatID = 0x1234;
    xid.gtrid_length = 3;
    xid.bqual_length = 2;
    std::memcpy(xid.data, "abcde", 5);
    return xid;
}

// One listener of a fan-out case and the port it is registered under.
struct Peer {
    std::unique_ptr<ScriptedListener> listener;
    std::unique_ptr<LoopbackPort> refused;
    int port = 0;
};

Peer makePeer(int behaviour) {
    Peer p;
    if (behaviour == kNone) {
        p.refused = std::make_unique<LoopbackPort>(false);
        p.port = p.refused->port();
        return p;
    }
    std::vector<Reply> replies;
    if (behaviour == kCloses) {
        replies.push_back({Reply::Kind::close, {}});
    } else if (behaviour < kNone) {
        replies.push_back(answer(behaviour));
    }
    p.listener = std::make_unique<ScriptedListener>(replies);
    p.port = p.listener->port();
    if (behaviour == kSendFails) {
        // A pooled, idle socket whose sending side is shut: the fan-out's write fails.
        int fd = 0;
        connectionSocketPool_jms(p.port, &fd, 10);
        connectionSocketPool_jms(p.port, &fd, 20);
        shutdown(fd, SHUT_WR);
    }
    return p;
}

TEST(FanOut, CombinesTheAnswersInListOrder) {
    ENTER_PRIVATE_ORLOM();
    struct Case {
        std::vector<int> answers;
        int result;
    } cases[] = {
        {{0, 0}, 0},
        {{3, 0}, 0},
        {{0, 3}, 3},
        {{-4, 0}, 0},
        {{0, -4}, -4},
        {{-4, -6}, -6},
        {{-6, -4}, -6},
        {{-8, kSilent}, -7},
        {{-8, kCloses}, -7},
        {{kSilent, 0}, 0},
        {{kNone, kNone}, 0},
        {{kNone, -4}, -4},
        {{0, kSendFails, kNotAsked}, 0},
        {{-5, kSendFails, kNotAsked}, -5},
        {{106, 3, 0}, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.answers));
        std::vector<Peer> peers;
        std::vector<std::pair<int, int>> rows;
        std::vector<ScriptedListener *> silent;
        for (int a : c.answers) {
            peers.push_back(makePeer(a));
            rows.emplace_back(kBroker, peers.back().port);
            if (a == kSilent) {
                silent.push_back(peers.back().listener.get());
            }
        }
        writeRegistry(rows);
        const XID xid = sampleXid();

        timeOutPollsTo(silent);
        const int rc = callEGListeners_jms(&xid, 1, 0, kCommit);
        clearScripts();

        EXPECT_EQ(rc, c.result);
        for (std::size_t i = 0; i < c.answers.size(); ++i) {
            SCOPED_TRACE(i);
            const int a = c.answers[i];
            if (a == kNotAsked) {
                EXPECT_EQ(peers[i].listener->connections(), 0);
            } else if (a == kNone) {
                EXPECT_EQ(registryMode(static_cast<int>(i)), kDead);
            } else if (a != kSendFails) {
                EXPECT_EQ(peers[i].listener->requests(1).size(), 1u);
                EXPECT_EQ(registryMode(static_cast<int>(i)), kBroker);
            }
        }
        connectionSocketPool_jms(-1, nullptr, 40);  // no socket outlives its case
    }
}

TEST(FanOut, NoPortsAfterThreeAttemptsASecondApartIsRmfail) {
    ENTER_PRIVATE_ORLOM();
    writeRegistry({{1, 4711}, {3, 4712}});  // a recovery and a dead row only
    resetSleeps();
    EXPECT_EQ(callEGListeners_jms(nullptr, 1, 0, kCommit), -7);
    EXPECT_EQ(sleepCalls(), 3);
}

// One listener answering XA_OK to a commit, traced with the clock and the pid frozen: the
// fan-out's own lines and those of its answer reader, whole. The XID's flattening writes
// an entry line without an exit, so the fan-out's later lines sit one level deeper.
TEST(FanOut, TracesOneRepresentativeFanOut) {
    ENTER_PRIVATE_ORLOM();
    TempDir dir;
    const std::string prefix = dir.path() + "/fan";
    ScriptedListener listener({answer(0)});
    writeRegistry({{kBroker, listener.port()}});
    const XID xid = sampleXid();
    setenv("XAJMS_TRACEFILE", prefix.c_str(), 1);
    freezeTraceColumns();
    enableSocketTrace(prefix);

    callEGListeners_jms(&xid, 1, 0, kCommit);

    disarmClock();
    disarmPid();
    int fd = 0;
    for (const PortRow &row : processConnectionPool_jms.row) {
        fd = row.port == listener.port() ? row.slot[0].sockfd : fd;
    }
    const std::string port = std::to_string(listener.port());
    const std::string sock = std::to_string(fd);
    const std::vector<std::string> expected{
        golden(1, "{ XASocket callEGListeners   rmid = 1,msgtype=8195,"),
        golden(3, "  XASocket callEGListeners   Xid Format : 4660"),
        golden(3, "  XASocket callEGListeners   Xid gtrid length=3  data=616263"),
        golden(3, "  XASocket callEGListeners   Xid bqual length=2  data=6465"),
        golden(3, "  XASocket callEGListeners    pBuffer = "),
        golden(3, "  XASocket callEGListeners    obtained sockfd=" + sock + " for port=" + port),
        golden(3, "  XASocket callEGListeners    wrote 49 bytes"),
        golden(5, "{ XASocket receiveXARC   sockfd = " + sock),
        golden(5, "  XASocket receiveXARC   read 4 bytes"),
        golden(5, "  XASocket receiveXARC   Return code from XAHandler = 0"),
        golden(5, "} XASocket receiveXARC "),
        golden(3, "  XASocket callEGListeners    received JDBC Provider rcode 0"),
        golden(3, "} XASocket callEGListeners    XARC = 0"),
    };
    std::vector<std::string> ours;
    for (const std::string &line : traceLines(prefix)) {
        if (line.find(" callEGListeners ") != std::string::npos ||
            line.find(" receiveXARC ") != std::string::npos) {
            ours.push_back(line);
        }
    }
    EXPECT_EQ(ours, expected);
}

}  // namespace
