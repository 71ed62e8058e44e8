// The timed reads: every ending of the deadline-bounded receive, the retry storms, the
// offsets at which a reply in pieces lands, and the pool clear after a failed read.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "support/fakes.h"
#include "support/loopback.h"
#include "support/trace_file.h"

namespace {

using xajms::test::golden;

constexpr int kNow = 1794815458;  // the second at which freezeTraceColumns() stops the clock

class TimedRead : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        xajms::test::freezeTraceColumns();
        xajms::test::enableSocketTrace(prefix);
    }
    void TearDown() override { xajms::test::clearScripts(); }
    std::vector<std::string> lines() const { return xajms::test::traceLines(prefix); }

    int ends[2] = {-1, -1};
    xajms::test::TempDir dir;
    std::string prefix = dir.path() + "/s";
};

int failWith(int code) {
    errno = code;
    return -1;
}

// A poll that reports data waiting without asking the system.
int readable(pollfd *fds, nfds_t, int) {
    fds[0].revents = POLLIN;
    return 1;
}

struct RecvCase {
    const char *name;
    int deadline;  // seconds from now
    int len;
    bool dataWaiting;
    bool peerClosed;
    xajms::test::PollScript poll;  // null: the real poll
    xajms::test::RecvScript recv;  // null: the real recv
    int result;
    int firstPollTimeout;
    std::string ending;
    const char *endClock = "07:50:58";  // the clock when the call ends
};

TEST_F(TimedRead, EveryEndingOfTheDeadlineBoundReceive) {
    const auto eagainAndTick = [](int, void *, size_t, int) {
        xajms::test::advanceClock(1);
        return static_cast<ssize_t>(failWith(EAGAIN));
    };
    const RecvCase cases[] = {
        {"passed deadline, data waiting", -5, 8, true, false, nullptr, nullptr, 3, 0,
         "Successful read; data=3 originalTimeoutDiff=0 timeoutDiff=0 failureCount=0"},
        {"passed deadline, nothing waiting", -5, 8, false, false, nullptr, nullptr, -99, 0,
         "Timeout during select/poll call; errno=0 originalTimeoutDiff=0 timeoutDiff=0"},
        {"peer closed", 20, 8, false, true, nullptr, nullptr, 0, 20000,
         "Successful read; data=0 originalTimeoutDiff=20 timeoutDiff=20 failureCount=0"},
        {"EINTR storm", 20, 8, false, false, [](pollfd *, nfds_t, int) { return failWith(EINTR); },
         nullptr, -1, 20000,
         "Socket error: too many EINTRs/EAGAINs; errno=4 originalTimeoutDiff=20 timeoutDiff=20 "
         "failureCount=100"},
        {"EAGAIN until the deadline passes", 2, 8, false, false, readable, eagainAndTick, -99, 2000,
         "Timeout during select/poll loop as counter wegative; errno=11 originalTimeoutDiff=2 "
         "timeoutDiff=-1",
         "07:51:01"},
        {"poll error", 20, 8, false, false, [](pollfd *, nfds_t, int) { return failWith(EBADF); },
         nullptr, -1, 20000,
         "Error during select/poll call; errno=9 originalTimeoutDiff=20 timeoutDiff=20"},
        {"woken without data", 20, 8, false, false,
         [](pollfd *fds, nfds_t, int) {
             fds[0].revents = POLLERR;
             return 1;
         },
         nullptr, -1, 20000,
         "Socket error: select/poll returned but without any data; errno=0 "
         "originalTimeoutDiff=20 timeoutDiff=20"},
        {"recv error", 20, 8, false, false, readable,
         [](int, void *, size_t, int) { return static_cast<ssize_t>(failWith(ECONNRESET)); }, -1,
         20000, "Error during recv call; errno=104 originalTimeoutDiff=20 timeoutDiff=20"},
        {"deadline beyond the poll range", INT_MAX - kNow, 8, false, false,
         [](pollfd *, nfds_t, int) { return 0; }, nullptr, -99, INT_MAX,
         "Timeout during select/poll call; errno=0 originalTimeoutDiff=352668189 "
         "timeoutDiff=352668189"},
        {"negative length", 20, -1, true, false, nullptr, nullptr, 0, 20000,
         "Successful read; data=0 originalTimeoutDiff=20 timeoutDiff=20 failureCount=0"},
    };
    for (const RecvCase &c : cases) {
        SCOPED_TRACE(c.name);
        xajms::test::freezeTraceColumns();
        xajms::test::enableSocketTrace(prefix);
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        if (c.dataWaiting) {
            ASSERT_EQ(write(pair[1], "abc", 3), 3);
        }
        if (c.peerClosed) {
            close(pair[1]);
        }
        std::vector<int> timeouts;
        xajms::test::setPoll([&](pollfd *fds, nfds_t n, int timeout) {
            timeouts.push_back(timeout);
            return c.poll ? c.poll(fds, n, timeout) : xajms::test::realPoll(fds, n, timeout);
        });
        xajms::test::setRecv(c.recv);
        char buffer[8] = {};
        const int zeroHour = kNow + c.deadline;

        const int rc = recvTimeout_jms(pair[0], buffer, c.len, zeroHour);

        xajms::test::clearScripts();
        EXPECT_EQ(rc, c.result);
        ASSERT_FALSE(timeouts.empty());
        EXPECT_EQ(timeouts[0], c.firstPollTimeout);
        const int diff = c.deadline < 0 ? 0 : c.deadline;
        EXPECT_EQ(lines(),
                  (std::vector<std::string>{
                      golden(1, "{ XASocket recvTimeout_jms "),
                      golden(1, "  XASocket recvTimeout   len=" + std::to_string(c.len) +
                                    " zeroHour=" + std::to_string(zeroHour) +
                                    " timeoutDiff=" + std::to_string(diff) + " "),
                      golden(1, "  XASocket recvTimeout   " + c.ending).replace(11, 8, c.endClock),
                      golden(1, "} XASocket recvTimeout ").replace(11, 8, c.endClock),
                  }));
        close(pair[0]);
        close(pair[1]);
    }
}

// The second read lands at the count of the first, the third at the count of the second.
TEST_F(TimedRead, ReplyInThreePiecesLandsAtThePreviousCount) {
    const std::vector<std::string> pieces = {"ABC", "DEF", "GHIJ"};
    size_t next = 0;
    xajms::test::setPoll(readable);
    xajms::test::setRecv([&](int, void *buffer, size_t, int) {
        std::memcpy(buffer, pieces[next].data(), pieces[next].size());
        return static_cast<ssize_t>(pieces[next++].size());
    });
    unsigned char buffer[11] = "..........";

    const int rc = readFromSocket_jms(ends[0], buffer, 10, 20);

    xajms::test::clearScripts();
    EXPECT_EQ(rc, 10);
    EXPECT_STREQ(reinterpret_cast<char *>(buffer), "ABCGHIJ...");
    const std::string zeroHour = std::to_string(kNow + 20);
    std::vector<std::string> want = {
        golden(1, "{ XASocket readFromSocket   sockfd=" + std::to_string(ends[0]) +
                      ", length of read=10, timeout=20 zeroHour=" + zeroHour)};
    for (int left : {10, 7, 4}) {
        const std::string got = left == 4 ? "4" : "3";
        want.push_back(golden(3, "{ XASocket recvTimeout_jms "));
        want.push_back(golden(3, "  XASocket recvTimeout   len=" + std::to_string(left) +
                                     " zeroHour=" + zeroHour + " timeoutDiff=20 "));
        want.push_back(golden(3, "  XASocket recvTimeout   Successful read; data=" + got +
                                     " originalTimeoutDiff=20 timeoutDiff=20 failureCount=0"));
        want.push_back(golden(3, "} XASocket recvTimeout "));
        if (left != 4) {
            want.push_back(
                golden(1, "  XASocket readFromSocket    partial read from socket 3 bytes "));
        }
    }
    want.push_back(golden(1, "  XASocket readFromSocket    Read all daata from socket"));
    want.push_back(golden(1, "  XASocket readFromSocket   read 10 bytes; finalRC=10 "));
    want.push_back(golden(1, "} XASocket readFromSocket "));
    EXPECT_EQ(lines(), want);
}

// A failed read closes every pooled socket of the process; a refused length reads nothing.
TEST_F(TimedRead, FailedReadClearsThePool) {
    struct Case {
        const char *name;
        int length;
        bool peerClosed;
        xajms::test::PollScript poll;
        int result;
        bool cleared;
    };
    const Case cases[] = {
        {"length 0", 0, false, nullptr, -1, false},
        {"negative length", -4, false, nullptr, -1, false},
        {"peer closed", 4, true, nullptr, -1, true},
        {"timed out", 4, false, [](pollfd *, nfds_t, int) { return 0; }, -99, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        if (c.peerClosed) {
            close(pair[1]);
        }
        const int pooled = open("/dev/null", O_RDONLY);
        processConnectionPool_jms = ConnectionPool{};
        processConnectionPool_jms.numPorts = 1;
        processConnectionPool_jms.row[0] = PortRow{4000, 1, 0, {{pooled, 1}}};
        xajms::test::setPoll(c.poll);
        const int recvs = xajms::test::recvCalls();
        unsigned char buffer[4];

        EXPECT_EQ(readFromSocket_jms(pair[0], buffer, c.length, 20), c.result);

        xajms::test::clearScripts();
        EXPECT_EQ(xajms::test::recvCalls() - recvs, c.length > 0 && c.peerClosed ? 1 : 0);
        EXPECT_EQ(processConnectionPool_jms.row[0].slot[0].sockfd, c.cleared ? 0 : pooled);
        EXPECT_EQ(xajms::test::isOpen(pooled), !c.cleared);
        close(pair[0]);
        close(pair[1]);
        close(pooled);
    }
}

}  // namespace
