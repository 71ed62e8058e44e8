// The connection pool: the table after gets, reuse, the two limits, shrinking returns,
// refreshes and clears; the timed reads' endings, traced as whole lines, and the pool clear
// after a failed read.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "support/fakes.h"
#include "support/loopback.h"
#include "support/trace_file.h"

namespace {

using namespace xajms::test;
using Lines = std::vector<std::string>;
using Slots = std::vector<std::pair<int, int>>;  // (sockfd, inUse) of each slot
using Row = std::tuple<int, int, int, Slots>;    // port, rows, available, the 30 slots

ConnectionPool &pool = processConnectionPool_jms;
constexpr int kNow = 1794815458;  // the second at which freezeTraceColumns() stops the clock

Row rowOf(int r) {
    Slots slots;
    for (const SocketSlot &s : pool.row[r].slot) {
        slots.emplace_back(s.sockfd, s.inUse);
    }
    return {pool.row[r].port, pool.row[r].rows, pool.row[r].available, slots};
}

Row want(int port, int rows, int available, Slots slots) {
    slots.resize(30);
    return {port, rows, available, slots};
}

// Sets row r to `rows` slots of new descriptors (of /dev/null) with the inUse bits given; the
// slots of the `empty` bits hold descriptor 0 instead.
Slots fillRow(int r, int port, int rows, int available, unsigned inUse = ~0u, unsigned empty = 0) {
    pool.numPorts = std::max(pool.numPorts, r + 1);
    pool.row[r] = PortRow{port, rows, available, {}};
    Slots slots;
    for (int i = 0; i < rows; ++i) {
        const int fd = (empty >> i) & 1 ? 0 : open("/dev/null", O_RDONLY);
        pool.row[r].slot[i] = SocketSlot{fd, (inUse >> i) & 1 ? 1 : 0};
        slots.emplace_back(pool.row[r].slot[i].sockfd, pool.row[r].slot[i].inUse);
    }
    return slots;
}

class Pool : public ::testing::Test {
  protected:
    void SetUp() override {
        occupyDescriptorZero();
        freezeTraceColumns();
    }
    void TearDown() override { clearScripts(); }
    // The lines written since tracing was switched on or since the last call.
    Lines take() {
        const Lines written = traceLines(prefix);
        enableSocketTrace(prefix);
        return written;
    }

    TempDir dir;
    std::string prefix = dir.path() + "/s";
};

TEST_F(Pool, GetPrefersAnIdleSocketAndRefusesThe31st) {
    LoopbackPort listener;
    const int port = listener.port();
    const int a = poolGetNext_jms(port);
    const int b = poolGetNext_jms(port);
    ASSERT_GT(a, 0);
    poolReturn_jms(port, a);
    EXPECT_EQ(rowOf(0), want(port, 2, 1, {{a, 0}, {b, 1}}));
    EXPECT_EQ(poolGetNext_jms(port), a);
    Slots slots = {{a, 1}, {b, 1}};
    while (slots.size() < 30) {
        slots.emplace_back(poolGetNext_jms(port), 1);
    }
    take();
    EXPECT_EQ(poolGetNext_jms(port), -1);
    EXPECT_EQ(rowOf(0), want(port, 30, 0, slots));
    EXPECT_EQ(pool.numPorts, 1);
    EXPECT_EQ(iIndent, 2);  // no exit line
    const std::string maxed = "  XASocket poolGetNext_jms   Reached maximum sockets for port ";
    EXPECT_EQ(take().back(), golden(1, maxed + std::to_string(port) + " so retrying"));
    int none = -5;
    connectionSocketPool_jms(port, &none, 10);  // three attempts, a second of sleep after each
    EXPECT_EQ(none, 0);
    EXPECT_EQ(sleptSeconds(), 3U);
}

// Slot 0 is handed back; the return then shrinks the row by the share of idle sockets.
TEST_F(Pool, ReturnShrinksByTheShareOfIdleSockets) {
    // rows, slots in use before the return, slots holding descriptor 0, available before,
    // rows after, available after, slots the shrink empties
    const std::tuple<int, unsigned, unsigned, int, int, int, unsigned> cases[] = {
        {10, 0xF, 0, 6, 9, 6, 1u << 9},
        {10, 0x1, 0, 9, 6, 6, 0xFu << 6},
        {30, 0x1, 0, 29, 18, 18, 0xFFFu << 18},
        {6, 0x7, 0, 3, 6, 4, 0},
        {10, 0x207, 0, 6, 10, 6, 1u << 8},
        {10, 0x1, 1u << 8, 9, 6, 6, 0xFu << 6},
        {6, 0x3F, 0, 5, 6, 5, 0x1},  // drift: the walk goes down to slot 0
    };
    for (const auto &[rows, inUse, empty, available, rowsAfter, availableAfter, closed] : cases) {
        SCOPED_TRACE(testing::PrintToString(std::tie(rows, inUse, empty, available)));
        pool = ConnectionPool{};
        occupyDescriptorZero();
        Slots slots = fillRow(0, 4000, rows, available, inUse, empty);
        std::vector<int> closedFds;
        for (int i = 0; i < rows; ++i) {
            if ((closed >> i) & 1u) {
                closedFds.push_back(slots[i].first);
                slots[i] = {0, 0};
            }
        }
        slots[0].second = 0;

        poolReturn_jms(4000, pool.row[0].slot[0].sockfd);

        EXPECT_EQ(rowOf(0), want(4000, rowsAfter, availableAfter, slots));
        for (int fd : closedFds) {
            EXPECT_FALSE(isOpen(fd)) << "descriptor " << fd;
        }
        EXPECT_EQ(isOpen(0), empty == 0);
    }
}

TEST_F(Pool, RefreshClosesTheBrokenSocketAndEmptiesItsSlot) {
    // slots in use, empty slots, available, the slot refreshed (-1: a descriptor the row does
    // not hold), rows after, available after
    const std::tuple<int, unsigned, unsigned, int, int, int, int> cases[] = {
        {1, 0x1, 0, 0, 0, 0, -1},
        {3, 0x2, 0, 2, 1, 3, 1},
        {3, 0x4, 0x2, 1, 2, 1, 0},
        {1, 0x1, 0, 0, -1, 1, 0}};
    for (const auto &[rows, inUse, empty, available, refreshed, rowsAfter, availableAfter] :
         cases) {
        pool = ConnectionPool{};
        Slots slots = fillRow(0, 4000, rows, available, inUse, empty);
        const int fd = refreshed >= 0 ? slots[refreshed].first : 999;
        if (refreshed >= 0) {
            slots[refreshed] = {0, 0};
        }

        EXPECT_EQ(poolReturnAndRefresh_jms(4000, fd), -1);

        EXPECT_EQ(rowOf(0), want(4000, rowsAfter, availableAfter, slots)) << refreshed;
        EXPECT_FALSE(isOpen(fd));
        EXPECT_TRUE(refreshed >= 0 || isOpen(slots[0].first));
    }
}

TEST_F(Pool, ClearEmptiesSlotsButKeepsRowsAndCounters) {
    const Slots a = fillRow(0, 4000, 2, 1, 0x1);
    const Slots b = fillRow(1, 4001, 3, 2);
    poolClear_jms(4001);
    EXPECT_EQ(rowOf(0), want(4000, 2, 1, a));
    EXPECT_EQ(rowOf(1), want(4001, 3, 2, {}));
    EXPECT_FALSE(isOpen(b[2].first));
    EXPECT_TRUE(isOpen(0));
    poolClear_jms(-1);  // row 1's emptied slots hold descriptor 0, which is closed too
    EXPECT_EQ(rowOf(0), want(4000, 2, 1, {}));
    EXPECT_EQ(rowOf(1), want(4001, 3, 2, {}));
    EXPECT_EQ(pool.numPorts, 2);
    EXPECT_FALSE(isOpen(a[0].first));
    EXPECT_FALSE(isOpen(0));
}

TEST_F(Pool, DescriptorHandedBackTwiceOnlyDrifts) {
    const Slots slots = fillRow(0, 4000, 2, 0);
    poolReturn_jms(4000, slots[0].first);
    poolReturn_jms(4000, slots[0].first);
    EXPECT_EQ(rowOf(0), want(4000, 2, 2, {{slots[0].first, 0}, slots[1]}));
    poolReturnAndRefresh_jms(4000, slots[1].first);
    poolReturnAndRefresh_jms(4000, slots[1].first);
    EXPECT_EQ(rowOf(0), want(4000, 1, 1, {{slots[0].first, 0}}));  // the top slot lowers rows
}

// Whatever numPorts and rows hold, the operations stay inside the 500 rows and 30 slots.
TEST_F(Pool, CountsOutsideTheTableAreReadAsItsBounds) {
    LoopbackPort listener;
    const int port = listener.port();
    for (int numPorts : {600, -3}) {
        pool = ConnectionPool{};
        pool.numPorts = numPorts;
        EXPECT_EQ(poolGetNext_jms(port), -2);
        poolClear_jms(-1);
        poolReturn_jms(port, 5);
        EXPECT_EQ(pool.numPorts, numPorts);
    }
    for (int rows : {45, -4}) {
        pool = ConnectionPool{};
        fillRow(499, port, 30, 45);  // the last row: a slot past 29 lies outside the table
        pool.row[499].rows = rows;
        EXPECT_EQ(poolGetNext_jms(port), -1);
        poolReturn_jms(port, -1);  // share 100 %: the walk starts at slot 29
        EXPECT_EQ(pool.row[499].rows, rows);
        poolClear_jms(port);
    }
    pool = ConnectionPool{};
    Slots edge = fillRow(0, port, 6, INT32_MAX);
    poolReturn_jms(port, edge[5].first);  // the counter wraps; its share is negative
    edge[5].second = 0;
    for (int action : {10, 20, 30}) {
        connectionSocketPool_jms(port, nullptr, action);  // nothing to store or hand back
    }
    EXPECT_EQ(sleepCalls(), 0);
    EXPECT_EQ(rowOf(0), want(port, 6, INT32_MIN, edge));
}

// The diagnostic listing shows each used row with all 30 slots, never a row past the table.
TEST_F(Pool, ListingShowsEachUsedRowWithAllThirtySlots) {
    const auto line = [](const std::string &text) {
        return golden(1, "  XASocket poolListContents_jms   " + text);
    };
    const std::pair<int, int> cases[] = {{1, 1}, {-3, 0}, {600, 500}};  // numPorts, rows listed
    for (const auto &[numPorts, listed] : cases) {
        SCOPED_TRACE(numPorts);
        pool = ConnectionPool{};
        const Slots slots = fillRow(0, 4000, 2, 1);
        pool.row[0].rows = 45;
        pool.numPorts = numPorts;
        enableSocketTrace(prefix);
        poolListContents();
        Lines want{golden(1, "{ XASocket poolListContents_jms ")};
        for (int r = 0; r < listed; ++r) {
            want.push_back(
                line(r == 0 ? "port=4000 #rows=45 #avail=1" : "port=0 #rows=0 #avail=0"));
            for (int i = 0; i < 30; ++i) {
                const auto [fd, inUse] = r == 0 && i < 2 ? slots[i] : std::pair{0, 0};
                want.push_back(
                    line("==> sockfd=" + std::to_string(fd) + " inUse=" + std::to_string(inUse)));
            }
        }
        want.push_back(golden(1, "} XASocket poolListContents_jms "));
        EXPECT_EQ(traceLines(prefix), want);
        poolClear_jms(4000);
    }
}

int failWith(int code) {
    errno = code;
    return -1;
}

int readable(pollfd *fds, nfds_t, int) {
    fds[0].revents = POLLIN;
    return 1;
}

TEST_F(Pool, EveryEndingOfTheDeadlineBoundReceive) {
    const RecvScript eagainAndTick = [](int, void *, size_t, int) {
        advanceClock(1);
        return failWith(EAGAIN);
    };
    const PollScript eintr = [](pollfd *, nfds_t, int) { return failWith(EINTR); };
    const PollScript ebadf = [](pollfd *, nfds_t, int) { return failWith(EBADF); };
    const PollScript pollErr = [](pollfd *fds, nfds_t, int) { return fds[0].revents = POLLERR; };
    const PollScript silence = [](pollfd *, nfds_t, int) { return 0; };
    const RecvScript reset = [](int, void *, size_t, int) { return failWith(ECONNRESET); };
    const std::string ok = "Successful read; data=";
    // deadline from now, len, peer (1 data waiting, 2 closed), poll, recv, result, first
    // poll timeout, ending, whether the clock moved on (by the three seconds of recv's ticks)
    const std::tuple<int, int, int, PollScript, RecvScript, int, int, std::string, bool> cases[] = {
        {-5, 8, 1, nullptr, nullptr, 3, 0,
         ok + "3 originalTimeoutDiff=0 timeoutDiff=0 failureCount=0", false},
        {-5, 8, 0, nullptr, nullptr, -99, 0,
         "Timeout during select/poll call; errno=0 originalTimeoutDiff=0 timeoutDiff=0", false},
        {20, 8, 2, nullptr, nullptr, 0, 20000,
         ok + "0 originalTimeoutDiff=20 timeoutDiff=20 failureCount=0", false},
        {20, 8, 0, eintr, nullptr, -1, 20000,
         "Socket error: too many EINTRs/EAGAINs; errno=4 originalTimeoutDiff=20 "
         "timeoutDiff=20 failureCount=100",
         false},
        {2, 8, 0, readable, eagainAndTick, -99, 2000,
         "Timeout during select/poll loop as counter wegative; errno=11 originalTimeoutDiff=2 "
         "timeoutDiff=-1",
         true},
        {20, 8, 0, ebadf, nullptr, -1, 20000,
         "Error during select/poll call; errno=9 originalTimeoutDiff=20 timeoutDiff=20", false},
        {20, 8, 0, pollErr, nullptr, -1, 20000,
         "Socket error: select/poll returned but without any data; errno=0 "
         "originalTimeoutDiff=20 timeoutDiff=20",
         false},
        {20, 8, 0, readable, reset, -1, 20000,
         "Error during recv call; errno=104 originalTimeoutDiff=20 timeoutDiff=20", false},
        {INT_MAX - kNow, 8, 0, silence, nullptr, -99, INT_MAX,  // beyond the poll range
         "Timeout during select/poll call; errno=0 originalTimeoutDiff=352668189 "
         "timeoutDiff=352668189",
         false},
        {20, -1, 1, nullptr, nullptr, 0, 20000,  // negative length
         ok + "0 originalTimeoutDiff=20 timeoutDiff=20 failureCount=0", false},
    };
    for (const auto &[deadline, len, peer, pollScript, recvScript, result, firstTimeout, ending,
                      ticked] : cases) {
        SCOPED_TRACE(ending);
        freezeTraceColumns();
        take();
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        ASSERT_EQ(write(pair[1], "abc", peer == 1 ? 3 : 0), peer == 1 ? 3 : 0);
        if (peer == 2) {
            close(pair[1]);
        }
        std::vector<int> timeouts;
        setPoll([&, script = pollScript](pollfd *fds, nfds_t n, int timeout) {
            timeouts.push_back(timeout);
            return script ? script(fds, n, timeout) : realPoll(fds, n, timeout);
        });
        setRecv(recvScript);
        char buffer[8] = {};
        const int zeroHour = kNow + deadline;

        EXPECT_EQ(recvTimeout_jms(pair[0], buffer, len, zeroHour), result);

        clearScripts();
        EXPECT_EQ(timeouts.at(0), firstTimeout);
        const std::string line = "  XASocket recvTimeout   ";
        const char *endClock = ticked ? "07:51:01" : "07:50:58";
        EXPECT_EQ(take(), (Lines{golden(1, "{ XASocket recvTimeout_jms "),
                                 golden(1, line + "len=" + std::to_string(len) + " zeroHour=" +
                                               std::to_string(zeroHour) + " timeoutDiff=" +
                                               std::to_string(std::max(deadline, 0)) + " "),
                                 golden(1, line + ending).replace(11, 8, endClock),
                                 golden(1, "} XASocket recvTimeout ").replace(11, 8, endClock)}));
        close(pair[0]);
        close(pair[1]);
    }
}

}  // namespace
