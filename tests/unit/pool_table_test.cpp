// The per-port connection pool: the table after gets, reuse, the two limits, returns that
// shrink, refreshes and clears, the action entry's retries, and the trace of each family.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "support/fakes.h"
#include "support/loopback.h"
#include "support/trace_file.h"

namespace {

using xajms::test::golden;
using xajms::test::isOpen;
using xajms::test::LoopbackPort;

ConnectionPool &pool = processConnectionPool_jms;

// Checks a row field by field; slots past the listed ones must be empty and idle.
void expectRow(int r, int port, int rows, int available, const std::vector<SocketSlot> &slots) {
    SCOPED_TRACE("row " + std::to_string(r));
    const PortRow &row = pool.row[r];
    EXPECT_EQ(row.port, port);
    EXPECT_EQ(row.rows, rows);
    EXPECT_EQ(row.available, available);
    for (size_t i = 0; i < 30; ++i) {
        const SocketSlot want = i < slots.size() ? slots[i] : SocketSlot{0, 0};
        EXPECT_EQ(row.slot[i].sockfd, want.sockfd) << "slot " << i;
        EXPECT_EQ(row.slot[i].inUse, want.inUse) << "slot " << i;
    }
}

// Fills row r with open descriptors (of /dev/null) in rows slots, all in use.
std::vector<SocketSlot> fillRow(int r, int port, int rows, int available) {
    pool.numPorts = std::max(pool.numPorts, r + 1);
    pool.row[r].port = port;
    pool.row[r].rows = rows;
    pool.row[r].available = available;
    std::vector<SocketSlot> slots;
    for (int i = 0; i < rows; ++i) {
        pool.row[r].slot[i] = SocketSlot{open("/dev/null", O_RDONLY), 1};
        slots.push_back(pool.row[r].slot[i]);
    }
    return slots;
}

class Pool : public ::testing::Test {
  protected:
    void SetUp() override {
        xajms::test::occupyDescriptorZero();
        xajms::test::freezeTraceColumns();
    }
    void trace() { xajms::test::enableSocketTrace(prefix); }
    std::vector<std::string> lines() const { return xajms::test::traceLines(prefix); }

    xajms::test::TempDir dir;
    std::string prefix = dir.path() + "/s";
};

TEST_F(Pool, GetPrefersAnIdleSocketAndConnectsOnlyWhenNoneIsIdle) {
    LoopbackPort listener;
    const int port = listener.port();

    const int a = poolGetNext_jms(port);
    ASSERT_GT(a, 0);
    EXPECT_EQ(pool.numPorts, 1);
    expectRow(0, port, 1, 0, {{a, 1}});

    const int b = poolGetNext_jms(port);
    ASSERT_GT(b, 0);
    expectRow(0, port, 2, 0, {{a, 1}, {b, 1}});

    poolReturn_jms(port, a);
    expectRow(0, port, 2, 1, {{a, 0}, {b, 1}});

    EXPECT_EQ(poolGetNext_jms(port), a);
    expectRow(0, port, 2, 0, {{a, 1}, {b, 1}});
    EXPECT_EQ(pool.numPorts, 1);
}

TEST_F(Pool, ThirtyFirstSocketIsRefusedWithoutAnExitLine) {
    LoopbackPort listener;
    const int port = listener.port();
    std::vector<SocketSlot> slots;
    for (int i = 0; i < 30; ++i) {
        slots.push_back(SocketSlot{poolGetNext_jms(port), 1});
        ASSERT_GT(slots.back().sockfd, 0);
    }
    trace();

    EXPECT_EQ(poolGetNext_jms(port), -1);

    expectRow(0, port, 30, 0, slots);
    const std::string p = std::to_string(port);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{
                  golden(1, "{ XASocket poolGetNext   port=" + p),
                  golden(1, "  XASocket poolGetNext   ConnectionPool is already active"),
                  golden(1, "  XASocket poolGetNext    found existing row for port " + p),
                  golden(1, "  XASocket poolGetNext   checking existing sockfd's for port " + p),
                  golden(1, "  XASocket poolGetNext_jms   Reached maximum sockets for port " + p +
                                " so retrying"),
              }));
    EXPECT_EQ(iIndent, 2);
}

// Action 10 tries three times and sleeps after each failed attempt, the third included.
TEST_F(Pool, GetActionRetriesThreeTimesAndHandsBackZero) {
    LoopbackPort listener;
    LoopbackPort refused(false);
    struct Case {
        const char *name;
        int port;
        int numPorts;  // rows 0 .. numPorts-1 get ports 70000 + r
        int inUse;     // sockets of the wanted port (row 0), all in use
        bool gets;
        const char *retryLine;
        std::vector<int> retryPads;  // a refused 31st socket leaves its exit line unwritten
    };
    const std::string inUse =
        "  XASocket connectionSocketPool   All sockets currently in use - retrying";
    const std::string noSocket =
        "  XASocket connectionSocketPool   Unable to obtain a socket -  retrying";
    const Case cases[] = {
        {"connects", listener.port(), 0, 0, true, "retrying", {}},
        {"refused", refused.port(), 0, 0, false, noSocket.c_str(), {1, 1, 1}},
        {"thirty in use", listener.port(), 1, 30, false, inUse.c_str(), {3, 5, 7}},
        {"table full", listener.port(), 500, 0, false, inUse.c_str(), {1, 1, 1}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        pool = ConnectionPool{};
        for (int r = 0; r < c.numPorts; ++r) {
            pool.row[r].port = 70000 + r;
        }
        pool.numPorts = c.numPorts;
        if (c.inUse > 0) {
            fillRow(0, c.port, c.inUse, 0);
        }
        xajms::test::freezeTraceColumns();
        trace();
        xajms::test::resetSleeps();
        int sockfd = -7;

        connectionSocketPool_jms(c.port, &sockfd, 10);

        EXPECT_EQ(sockfd > 0, c.gets) << sockfd;
        EXPECT_EQ(xajms::test::sleepCalls(), c.gets ? 0 : 3);
        const auto written = lines();
        // Each sleep moves the fake clock on by a second: attempt i writes its line at
        // 07:50:58 + i seconds.
        const char *clock[] = {"07:50:58", "07:50:59", "07:51:00"};
        std::vector<std::string> retries;
        for (size_t i = 0; i < c.retryPads.size(); ++i) {
            retries.push_back(golden(c.retryPads[i], c.retryLine).replace(11, 8, clock[i]));
        }
        std::vector<std::string> found;
        std::copy_if(written.begin(), written.end(), std::back_inserter(found),
                     [&](const std::string &line) { return line.ends_with(c.retryLine); });
        EXPECT_EQ(found, retries);
    }
}

struct ShrinkCase {
    const char *name;
    int rows;
    unsigned inUse;  // slots in use before slot 0 is handed back (slot 0 always is)
    unsigned empty;  // slots holding descriptor 0
    int available;   // before the return
    int rowsAfter;
    int availableAfter;
    unsigned closed;  // slots the shrink empties
};

// Slot 0 is handed back; the return then shrinks the row by the share of idle sockets.
const ShrinkCase kShrinks[] = {
    {"10 with 7 idle", 10, 0xF, 0, 6, 9, 6, 1u << 9},
    {"10 with 10 idle", 10, 0x1, 0, 9, 6, 6, 0xFu << 6},
    {"30 with 30 idle", 30, 0x1, 0, 29, 18, 18, 0xFFFu << 18},
    {"6 with 4 idle", 6, 0x7, 0, 3, 6, 4, 0},
    {"top slot in use", 10, 0x207, 0, 6, 10, 6, 1u << 8},
    {"empty slot below the top", 10, 0x1, 1u << 8, 9, 6, 6, 0xFu << 6},
    {"drift walks down to slot 0", 6, 0x3F, 0, 5, 6, 5, 0x1},
};

TEST_F(Pool, ReturnShrinksByTheShareOfIdleSockets) {
    for (const ShrinkCase &c : kShrinks) {
        SCOPED_TRACE(c.name);
        pool = ConnectionPool{};
        xajms::test::occupyDescriptorZero();
        std::vector<SocketSlot> slots = fillRow(0, 4000, c.rows, c.available);
        for (int i = 0; i < c.rows; ++i) {
            slots[i].inUse = (c.inUse >> i) & 1u;
            if ((c.empty >> i) & 1u) {
                close(slots[i].sockfd);
                slots[i].sockfd = 0;
            }
            pool.row[0].slot[i] = slots[i];
        }
        const int returned = slots[0].sockfd;
        slots[0].inUse = 0;
        std::vector<int> closedFds;
        for (int i = 0; i < c.rows; ++i) {
            if ((c.closed >> i) & 1u) {
                closedFds.push_back(slots[i].sockfd);
                slots[i] = SocketSlot{0, 0};
            }
        }

        poolReturn_jms(4000, returned);

        expectRow(0, 4000, c.rowsAfter, c.availableAfter, slots);
        for (int fd : closedFds) {
            EXPECT_FALSE(isOpen(fd)) << "descriptor " << fd;
        }
        EXPECT_EQ(isOpen(0), c.empty == 0);
    }
}

TEST_F(Pool, ReturnThatShrinksTracesEachStep) {
    std::vector<SocketSlot> slots = fillRow(0, 4000, 10, 6);
    for (int i = 4; i < 10; ++i) {
        pool.row[0].slot[i].inUse = 0;
    }
    trace();

    poolReturn_jms(4000, slots[0].sockfd);

    const std::string fd = std::to_string(slots[0].sockfd);
    const std::string top = std::to_string(slots[9].sockfd);
    EXPECT_EQ(
        lines(),
        (std::vector<std::string>{
            golden(1, "{ XASocket poolReturn_jms   port=4000, returnSockfd=" + fd),
            golden(1, "  XASocket poolReturn_jms   matched port"),
            golden(1, "  XASocket poolReturn_jms   matched sockfd"),
            golden(1, "  XASocket poolReturn_jms   Socket rows=10 available=7"),
            golden(1,
                   "  XASocket poolReturn_jms   Checking if need to reduce pool - port 4000 nbr of "
                   "sockets = 10"),
            golden(1, "  XASocket poolReturn_jms   Reducing pool total=10 avail=7 reduction=1"),
            golden(1, "  XASocket poolReturn_jms   Attempting to reduce active pool at row 9"),
            golden(1, "  XASocket poolReturn_jms   Reducing active pool, closing socket " + top),
            golden(1,
                   "  XASocket poolReturn_jms   Decremented socket connection pool slots. Rows=9 "
                   "Available=6 "),
            golden(1, "} XASocket poolReturn_jms "),
        }));
}

TEST_F(Pool, RefreshClosesTheBrokenSocketAndEmptiesItsSlot) {
    struct Case {
        const char *name;
        std::vector<SocketSlot> before;  // descriptor 1 stands for an open one, 0 for none
        int available;
        int refreshed;  // slot index, or -1 for a descriptor the row does not hold
        int rowsAfter;
        int availableAfter;
    };
    const Case cases[] = {
        {"only socket", {{1, 1}}, 0, 0, 0, -1},
        {"middle socket", {{1, 0}, {1, 1}, {1, 0}}, 2, 1, 3, 1},
        {"top above an empty slot", {{1, 0}, {0, 0}, {1, 1}}, 1, 2, 1, 0},
        {"descriptor not held", {{1, 1}}, 0, -1, 1, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        pool = ConnectionPool{};
        std::vector<SocketSlot> slots =
            fillRow(0, 4000, static_cast<int>(c.before.size()), c.available);
        for (size_t i = 0; i < slots.size(); ++i) {
            slots[i].inUse = c.before[i].inUse;
            slots[i].sockfd = c.before[i].sockfd != 0 ? slots[i].sockfd : 0;
            pool.row[0].slot[i] = slots[i];
        }
        const int fd = c.refreshed >= 0 ? slots[c.refreshed].sockfd : 999;
        if (c.refreshed >= 0) {
            slots[c.refreshed] = SocketSlot{0, 0};
        }

        EXPECT_EQ(poolReturnAndRefresh_jms(4000, fd), -1);

        expectRow(0, 4000, c.rowsAfter, c.availableAfter, slots);
        if (c.refreshed >= 0) {
            EXPECT_FALSE(isOpen(fd));
        } else {
            EXPECT_TRUE(isOpen(slots[0].sockfd));
        }
    }
}

TEST_F(Pool, ClearEmptiesSlotsButKeepsRowsAndCounters) {
    std::vector<SocketSlot> a = fillRow(0, 4000, 2, 1);
    std::vector<SocketSlot> b = fillRow(1, 4001, 3, 2);
    pool.row[0].slot[1].inUse = 0;

    poolClear_jms(4001);
    expectRow(0, 4000, 2, 1, {a[0], {a[1].sockfd, 0}});
    expectRow(1, 4001, 3, 2, {});
    EXPECT_FALSE(isOpen(b[2].sockfd));

    EXPECT_TRUE(isOpen(0));

    poolClear_jms(-1);  // row 1's emptied slots hold descriptor 0, which is closed too
    expectRow(0, 4000, 2, 1, {});
    expectRow(1, 4001, 3, 2, {});
    EXPECT_EQ(pool.numPorts, 2);
    EXPECT_FALSE(isOpen(a[0].sockfd));
    EXPECT_FALSE(isOpen(0));
}

// The clear action traces its line for a single port too, and recreates a deleted lock.
TEST_F(Pool, ClearActionTracesAroundTheLockAndTheClear) {
    const int fd = fillRow(0, 4000, 1, 0)[0].sockfd;
    trace();
    deleteConnectionPoolLock_jms();
    std::filesystem::remove(prefix + "12345.trc");

    connectionSocketPool_jms(4000, nullptr, 40);

    EXPECT_EQ(
        lines(),
        (std::vector<std::string>{
            golden(1, "{ XASocket connectionSocketPool_jms    port=4000, action=40"),
            golden(3, "{ XASocket initializeConnectionPoolLock    called for pid 12345 "),
            golden(3, "  XASocket initializeConnectionPoolock_jms   Created ConnectionPool rwlock"),
            golden(3, "} XASocket initializeConnectionPoolLock "),
            golden(1, "  XASocket connectionSocketPool   About to clear all ports"),
            golden(3, "{ XASocket lockConnectionPool_jms "),
            golden(3, "  XASocket lockConnectionPool   locked ConnectionPool_jms rwlock"),
            golden(3, "} XASocket lockConnectionPool_jms "),
            golden(3, "{ XASocket poolClear_jms   port=4000"),
            golden(3, "  XASocket poolClear   matched port"),
            golden(3, "  XASocket poolClear   closing sockfd " + std::to_string(fd)),
            golden(3, "} XASocket poolClear_jms "),
            golden(3, "{ XASocket unlockConnectionPool "),
            golden(3, "  XASocket unlockConnectionPool   unlocked ConnectionPool rwlock"),
            golden(3, "} XASocket unlockConnectionPool "),
            golden(1, "} XASocket connectionSocketPool "),
        }));
}

TEST_F(Pool, DescriptorHandedBackTwiceOnlyDrifts) {
    std::vector<SocketSlot> slots = fillRow(0, 4000, 2, 0);
    poolReturn_jms(4000, slots[0].sockfd);
    poolReturn_jms(4000, slots[0].sockfd);
    slots[0].inUse = 0;
    expectRow(0, 4000, 2, 2, slots);

    poolReturnAndRefresh_jms(4000, slots[1].sockfd);
    poolReturnAndRefresh_jms(4000, slots[1].sockfd);
    expectRow(0, 4000, 1, 1, {slots[0]});  // the emptied top slot lowers rows
}

// Whatever numPorts and rows hold, the operations stay inside the 500 rows and 30 slots.
TEST_F(Pool, CountsOutsideTheTableAreReadAsItsBounds) {
    LoopbackPort listener;
    const int port = listener.port();
    for (int numPorts : {600, -3}) {
        SCOPED_TRACE(numPorts);
        pool = ConnectionPool{};
        pool.numPorts = numPorts;
        EXPECT_EQ(poolGetNext_jms(port), -2);
        poolClear_jms(-1);
        poolReturn_jms(port, 5);
        EXPECT_EQ(pool.numPorts, numPorts);
    }
    for (int rows : {45, -4}) {
        SCOPED_TRACE(rows);
        pool = ConnectionPool{};
        fillRow(499, port, 30, 45);  // the last row: a slot past 29 lies outside the table
        pool.row[499].rows = rows;
        EXPECT_EQ(poolGetNext_jms(port), -1);
        poolReturn_jms(port, -1);  // share 100 %: the walk starts at slot 29
        EXPECT_EQ(pool.row[499].rows, rows);
        poolClear_jms(port);
    }
    pool = ConnectionPool{};
    std::vector<SocketSlot> edge = fillRow(0, port, 6, INT32_MAX);
    poolReturn_jms(port, edge[5].sockfd);  // the counter wraps; its share is negative
    edge[5].inUse = 0;
    expectRow(0, port, 6, INT32_MIN, edge);
    for (int action : {10, 20, 30}) {
        connectionSocketPool_jms(port, nullptr, action);  // nothing to store or hand back
    }
    EXPECT_EQ(xajms::test::sleepCalls(), 0);
    expectRow(0, port, 6, INT32_MIN, edge);
}

// The diagnostic listing shows every used row with all 30 slots, never more rows than the
// table holds, whatever numPorts and rows say.
TEST_F(Pool, ListingShowsEachUsedRowWithAllThirtySlots) {
    struct Case {
        int numPorts;
        int listedRows;
    } cases[] = {{1, 1}, {-3, 0}, {600, 500}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.numPorts);
        pool = ConnectionPool{};
        const std::vector<SocketSlot> slots = fillRow(0, 4000, 2, 1);
        pool.row[0].rows = 45;
        pool.numPorts = c.numPorts;
        trace();
        poolListContents();
        std::vector<std::string> want{golden(1, "{ XASocket poolListContents_jms ")};
        for (int r = 0; r < c.listedRows; ++r) {
            const std::string counts =
                r == 0 ? "port=4000 #rows=45 #avail=1" : "port=0 #rows=0 #avail=0";
            want.push_back(golden(1, "  XASocket poolListContents_jms   " + counts));
            for (int i = 0; i < 30; ++i) {
                const SocketSlot slot = r == 0 && i < 2 ? slots[i] : SocketSlot{0, 0};
                want.push_back(golden(1, "  XASocket poolListContents_jms   ==> sockfd=" +
                                             std::to_string(slot.sockfd) +
                                             " inUse=" + std::to_string(slot.inUse)));
            }
        }
        want.push_back(golden(1, "} XASocket poolListContents_jms "));
        EXPECT_EQ(lines(), want);
        poolClear_jms(4000);
    }
}

}  // namespace
