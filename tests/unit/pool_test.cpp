// The connection pool table after each operation, and every ending of the timed receive.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <latch>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/fakes.h"
#include "support/loopback.h"
#include "support/scripted_listener.h"
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
    for (int i = 0; i < rows; ++i) {
        const int fd = (empty >> i) & 1 ? 0 : open("/dev/null", O_RDONLY);
        pool.row[r].slot[i] = SocketSlot{fd, (inUse >> i) & 1 ? 1 : 0};
    }
    return std::get<3>(rowOf(r));
}

class Pool : public ::testing::Test {
  protected:
    void SetUp() override {
        occupyDescriptorZero();
        freezeTraceColumns();
    }

    TempDir dir;
    std::string prefix = dir.path() + "/s";
};

TEST_F(Pool, GetPrefersAnIdleSocketAndRefusesThe31st) {
    LoopbackPort listener;
    const int port = listener.port();
    const int a = poolGetNext_jms(port);
    const int b = poolGetNext_jms(port);
    poolReturn_jms(port, a);
    EXPECT_EQ(poolGetNext_jms(port), a);
    Slots slots = {{a, 1}, {b, 1}};
    while (slots.size() < 30) {
        slots.emplace_back(poolGetNext_jms(port), 1);
    }
    enableSocketTrace(prefix);
    EXPECT_EQ(poolGetNext_jms(port), -1);
    EXPECT_EQ(rowOf(0), want(port, 30, 0, slots));
    EXPECT_EQ(pool.numPorts, 1);
    const std::string maxed = "  XASocket poolGetNext_jms   Reached maximum sockets for port ";
    EXPECT_EQ(traceLines(prefix).back(), golden(1, maxed + std::to_string(port) + " so retrying"));
    int none = -5;
    connectionSocketPool_jms(port, &none, 10);  // three attempts, a second of sleep after each
    EXPECT_EQ(none, 0);
    EXPECT_EQ(sleptSeconds(), 3U);
}

TEST_F(Pool, ReturnShrinksByTheShareOfIdleSockets) {
    // Slot 0 is handed back to a row of: rows, slots in use, slots holding descriptor 0,
    // available; then rows, available and the slots emptied by the shrink
    const std::tuple<int, unsigned, unsigned, int, int, int, unsigned> cases[] = {
        {5, 0x1, 0, 4, 5, 5, 0},  // all idle, but five sockets are kept
        {6, 0x7, 0, 3, 6, 4, 0},  // the reduction is truncated to none
        {10, 0x207, 0, 6, 10, 6, 1u << 8},
        {6, 0x3F, 0, 5, 6, 5, 0x1},               // drift: the walk goes down to slot 0
        {10, 0x1, 1u << 8, 9, 6, 6, 0xFu << 6}};  // the emptied slot counts, 0 stays open
    for (const auto &[rows, inUse, empty, available, rowsAfter, availableAfter, closed] : cases) {
        SCOPED_TRACE(testing::PrintToString(std::tie(rows, inUse, empty, available)));
        const Slots before = fillRow(0, 4000, rows, available, inUse, empty);
        poolReturn_jms(4000, before[0].first);
        Slots after = before;
        after[0].second = 0;
        for (int i = 0; i < rows; ++i) {
            if ((closed >> i) & 1u) {
                after[i] = {0, 0};
                EXPECT_EQ(isOpen(before[i].first), before[i].first == 0) << "slot " << i;
            }
        }
        EXPECT_EQ(rowOf(0), want(4000, rowsAfter, availableAfter, after));
    }
}

TEST_F(Pool, ClearEmptiesSlotsButKeepsRowsAndCounters) {
    const Slots a = fillRow(0, 4000, 2, 1, 0x1);
    fillRow(1, 4001, 3, 2);
    poolClear_jms(4001);
    EXPECT_EQ(rowOf(0), want(4000, 2, 1, a));
    EXPECT_EQ(rowOf(1), want(4001, 3, 2, {}));
    poolClear_jms(-1);  // row 1's emptied slots hold descriptor 0, which names no socket
    EXPECT_EQ(rowOf(0), want(4000, 2, 1, {}));
    EXPECT_FALSE(isOpen(a[0].first));
    EXPECT_TRUE(isOpen(0));  // the host's, never closed by the pool
}

// A socket that a caller holds when a clear empties its slot (another caller's failed read)
// stays open until its holder is done with it: closed under the holder, its number would go
// to the next connection, and the holder would read that connection's answer.
TEST_F(Pool, ASocketHeldThroughAClearIsClosedWhenItsHolderIsDone) {
    LoopbackPort listener;
    const int port = listener.port();
    auto clearAll = [] {
        lockConnectionPool_jms();
        poolClear_jms(-1);
        unlockConnectionPool_jms();
    };
    // Done by giving it back (20), as broken (30), by clearing its port as the close does (40),
    // or by getting its next socket (10) after a failed write left it unreturned.
    for (int done : {20, 30, 40, 10}) {
        SCOPED_TRACE(done);
        int held = 0;
        connectionSocketPool_jms(port, &held, 10);
        clearAll();
        EXPECT_EQ(rowOf(0), want(port, 1, 0, {}));
        EXPECT_TRUE(isOpen(held));
        int next = held;
        connectionSocketPool_jms(port, &next, done);
        EXPECT_FALSE(isOpen(held));
        connectionSocketPool_jms(port, &next, 20);
    }

    // Another thread's give-back closed a; this thread's connection took a's number. The
    // refresh that thread sends after its give-back leaves this socket alone; a refresh of it
    // by a thread that never held it empties its slot but leaves it open to this thread.
    int a = 0;
    std::vector<int> below;  // every free descriptor below a, so that a's number comes next
    std::latch given(1), taken(1);
    std::jthread other([&] {
        connectionSocketPool_jms(port, &a, 10);
        clearAll();
        for (int fd = 0; fd >= 0 && fd < a;) {
            fd = open("/dev/null", O_RDONLY);
            below.push_back(fd);
        }
        connectionSocketPool_jms(port, &a, 20);
        given.count_down();
        taken.wait();
        connectionSocketPool_jms(port, &a, 30);
        EXPECT_EQ(rowOf(0), want(port, 1, 0, {{a, 1}}));
        connectionSocketPool_jms(port, &a, 30);
        EXPECT_EQ(rowOf(0), want(port, 0, -1, {}));  // the top slot emptied
    });
    given.wait();
    int b = 0;
    connectionSocketPool_jms(port, &b, 10);
    taken.count_down();
    other.join();
    ASSERT_EQ(b, a);
    EXPECT_TRUE(isOpen(b));
    connectionSocketPool_jms(port, &b, 20);
    EXPECT_FALSE(isOpen(b));
    std::for_each(below.begin(), below.end(), close);
}

// Hardened: a clear closes only idle sockets and leaves descriptor 0 open; a refresh keeps the
// idle count, since its holder never counted the socket idle.
TEST_F(Pool, HardenedClearAndRefreshLeaveWhatOthersHold) {
    ASSERT_NE(OrloStartSafe(), nullptr);
    const Slots a = fillRow(0, 4000, 3, 1, 0x1, 0x4);  // in use, idle, emptied
    poolClear_jms(-1);
    EXPECT_EQ(rowOf(0), want(4000, 3, 1, {a[0]}));
    EXPECT_TRUE(isOpen(a[0].first) && isOpen(0));
    EXPECT_FALSE(isOpen(a[1].first));
    EXPECT_EQ(poolReturnAndRefresh_jms(4000, a[0].first), -1);
    EXPECT_EQ(rowOf(0), want(4000, 3, 1, {}));
    EXPECT_FALSE(isOpen(a[0].first));
}

// A refresh empties the slot, and a top one takes rows down past the empty slots below. A
// second return raises available again; a second refresh finds no slot.
TEST_F(Pool, RefreshEmptiesTheSlotAndADescriptorHandedBackTwiceOnlyDrifts) {
    Slots slots = fillRow(0, 4000, 4, 0, 0xB, 0x4);  // slot 2 is empty
    poolReturn_jms(4000, slots[0].first);
    poolReturn_jms(4000, slots[0].first);
    slots[0].second = 0;
    EXPECT_EQ(rowOf(0), want(4000, 4, 2, slots));
    const int middle = slots[1].first, top = slots[3].first;
    EXPECT_EQ(poolReturnAndRefresh_jms(4000, middle), -1);
    slots[1] = {0, 0};
    EXPECT_EQ(rowOf(0), want(4000, 4, 1, slots));
    EXPECT_EQ(poolReturnAndRefresh_jms(4000, top), -1);
    EXPECT_EQ(poolReturnAndRefresh_jms(4000, top), -1);
    EXPECT_EQ(rowOf(0), want(4000, 1, 0, {slots[0]}));
    EXPECT_FALSE(isOpen(middle) || isOpen(top));
}

// Whatever numPorts and rows hold, the operations stay inside the 500 rows and 30 slots.
TEST_F(Pool, CountsOutsideTheTableAreReadAsItsBounds) {
    for (int numPorts : {600, -3}) {
        pool.numPorts = numPorts;
        EXPECT_EQ(poolGetNext_jms(4000), -2);
        int none = -5;
        connectionSocketPool_jms(4000, &none, 10);  // three attempts, as for a full row
        EXPECT_EQ(none, 0);
        poolClear_jms(-1);
        poolReturn_jms(4000, 5);
        EXPECT_EQ(pool.numPorts, numPorts);
    }
    for (int rows : {45, -4}) {
        fillRow(499, 4000, 30, 45);  // the last row: a slot past 29 lies outside the table
        pool.row[499].rows = rows;
        EXPECT_EQ(poolGetNext_jms(4000), -1);
        poolReturn_jms(4000, -1);  // share 100 %: the walk starts at slot 29
        EXPECT_EQ(pool.row[499].rows, rows);
        poolClear_jms(4000);
    }
    Slots edge = fillRow(0, 4000, 6, INT32_MAX);
    poolReturn_jms(4000, edge[5].first);  // the counter wraps; its share is negative
    edge[5].second = 0;
    EXPECT_EQ(sleepCalls(), 6);  // the two gets for a port that finds no row
    for (int action : {10, 20, 30}) {
        connectionSocketPool_jms(4000, nullptr, action);  // nothing to store or hand back
    }
    EXPECT_EQ(sleepCalls(), 6);
    EXPECT_EQ(rowOf(0), want(4000, 6, INT32_MIN, edge));
}

// The diagnostic listing shows each used row with all 30 slots, never a row past the table.
TEST_F(Pool, ListingShowsEachUsedRowWithAllThirtySlots) {
    const std::string list = "  XASocket poolListContents_jms   ";
    pool.row[0] = PortRow{4000, 45, 1, {{7, 1}, {8, 0}}};
    const char *used[] = {"==> sockfd=7 inUse=1", "==> sockfd=8 inUse=0"};
    for (const auto &[numPorts, listed] : {std::pair{1, 1}, {-3, 0}, {600, 500}}) {
        pool.numPorts = numPorts;
        enableSocketTrace(prefix);
        poolListContents();
        Lines want{golden(1, "{ XASocket poolListContents_jms ")};
        for (int r = 0; r < listed; ++r) {
            want.push_back(golden(
                1, list + (r == 0 ? "port=4000 #rows=45 #avail=1" : "port=0 #rows=0 #avail=0")));
            for (int i = 0; i < 30; ++i) {
                want.push_back(
                    golden(1, list + (r == 0 && i < 2 ? used[i] : "==> sockfd=0 inUse=0")));
            }
        }
        want.push_back(golden(1, "} XASocket poolListContents_jms "));
        EXPECT_EQ(traceLines(prefix), want);
    }
}

int failWith(int code) {
    errno = code;
    return -1;
}

// A connection attempt ends at the first call that fails: the name "localhost" that resolves to
// no usable IPv4 address, the socket, or the connect (whose descriptor stays open). A failed
// TCP_NODELAY is traced only; a longer address than IPv4's is cut to its four bytes.
TEST_F(Pool, AConnectionAttemptEndsAtTheFirstCallThatFails) {
#ifdef XAJMS_TEST_THREAD_SANITIZER
    GTEST_SKIP() << "ThreadSanitizer intercepts socket itself";
#endif
    static char loopback[16] = {127, 0, 0, 1};
    static char *addresses[] = {loopback, nullptr}, *none[] = {nullptr};
    auto resolving = [](int rc, bool found, char **list, int length) -> ResolveScript {
        return [=](hostent *entry, hostent **result) {
            *entry = hostent{nullptr, nullptr, AF_INET, length, list};
            *result = found ? entry : nullptr;
            return rc;
        };
    };
    const std::string host = "} XASocket makeConnection   <ERROR> failed while getting host ";
    // the resolver's result (none: the C library's), the call made to fail, whether the port
    // listens, and the lines after "Attempting to connect" (N: the new descriptor)
    const std::tuple<ResolveScript, const char *, bool, Lines> cases[] = {
        {resolving(ERANGE, true, addresses, 4), "", true, {host}},
        {resolving(0, false, addresses, 4), "", true, {host}},
        {resolving(0, true, nullptr, 4), "", true, {host}},
        {resolving(0, true, none, 4), "", true, {host}},
        {resolving(0, true, addresses, -1), "", true, {host}},
        {resolving(0, true, addresses, 16),
         "",
         true,
         {"} XASocket makeConnection   now socket connected to Java listener sokfd=N on port=P"}},
        {nullptr,
         "socket",
         true,
         {"} XASocket makeConnection   <ERROR> failed while opening socket on port "}},
        {nullptr,
         "setsockopt",
         true,
         {"  XASocket makeConnection   <ERROR> setsockopt rcode =-1",
          "} XASocket makeConnection   now socket connected to Java listener sokfd=N on port=P"}},
        {nullptr,
         "",
         false,
         {"} XASocket makeConnection   <ERROR> failed while connecting on port"}},
    };
    for (const auto &[resolve, failing, listening, ending] : cases) {
        SCOPED_TRACE(ending.back() + " " + failing);
        LoopbackPort listener(listening);
        const std::string port = std::to_string(listener.port());
        enableSocketTrace(prefix);
        flSocketInit_jms = 0;
        const int before = openDescriptors();
        setResolve(resolve);
        setFail([failing = std::string_view(failing)](std::string_view call) {
            return call == failing;
        });
        const int sockfd = makeConnection_jms(listener.port());
        clearScripts();
        EXPECT_EQ(sockfd > 0, ending.back().find("now socket") != std::string::npos);
        EXPECT_EQ(flSocketInit_jms, sockfd > 0 ? 1 : 0);
        Lines want = {golden(1, "{ XASocket makeConnection   port=" + port),
                      golden(1, "  XASocket makeConnection   Unix socket Starting"),
                      golden(1,
                             "  XASocket makeConnection   Attempting to connect to Java "
                             "listener on port = " +
                                 port)};
        for (std::string line : ending) {
            if (const auto n = line.find("=N on port=P"); n != std::string::npos) {
                line.replace(n, 12, "=" + std::to_string(sockfd) + " on port=" + port);
            }
            want.push_back(golden(1, line));
        }
        EXPECT_EQ(traceLines(prefix), want);
        // A connected socket is the caller's and a refused one stays open; no other is left.
        EXPECT_EQ(openDescriptors(), before + (sockfd > 0 || !listening ? 1 : 0));
        if (sockfd > 0) {
            close(sockfd);
        }
    }
}

// The lock calls report failure by an error number; initialisation, lock and unlock take only
// -1 as failure, the destroy any non-zero result. The flag starts at 2, so that a success
// shows by setting it to 1 (to 0 for the destroy).
TEST_F(Pool, LockCallsFailOnlyWhereTheirTestSaysSo) {
#ifdef XAJMS_TEST_THREAD_SANITIZER
    GTEST_SKIP() << "ThreadSanitizer intercepts the lock calls itself";
#endif
    const std::string init = "initializeConnectionPoolLock", pid = "    called for pid 12345 ";
    const std::string lock = "lockConnectionPool_jms", unlock = "unlockConnectionPool";
    const std::string destroy = "deleteConnectionPool";
    struct Case {
        void (*operation)();
        std::string entry, exit;  // the function literals of the entry and exit lines
        int result, error, before, after;
        std::string line;  // function literal and data of the one data line
    } cases[] = {
        {initializeConnectionPoolLock_jms, init + pid, init, -1, EAGAIN, 0, 0,
         "initializeConnectionPoolock_jms   Error creating ConnectionPool rwlock : Resource "
         "temporarily unavailable"},
        {initializeConnectionPoolLock_jms, init + pid, init, EAGAIN, 0, 0, 1,
         "initializeConnectionPoolock_jms   Created ConnectionPool rwlock"},
        {lockConnectionPool_jms, lock + " ", lock, -1, EDEADLK, 2, 2,
         "lockConnectionPool_jms   Error locking ConnectionPool rwlock : Resource deadlock "
         "avoided"},
        {lockConnectionPool_jms, lock + " ", lock, EDEADLK, 0, 2, 1,
         "lockConnectionPool   locked ConnectionPool_jms rwlock"},
        {unlockConnectionPool_jms, unlock + " ", unlock, -1, EPERM, 2, 2,
         "unlockConnectionPool_jms   Error unlocking ConnectionPool rwlock : Operation not "
         "permitted"},
        {unlockConnectionPool_jms, unlock + " ", unlock, EPERM, 0, 2, 1,
         "unlockConnectionPool   unlocked ConnectionPool rwlock"},
        {deleteConnectionPoolLock_jms, destroy + "_jms ", destroy, EBUSY, EBUSY, 2, 2,
         "deleteConnectionPoolLock_jms   Error deleteing ConnectionPool rwlock : Device or "
         "resource busy"},
        {deleteConnectionPoolLock_jms, destroy + "_jms ", destroy, 0, 0, 2, 0,
         "deleteConnectionPoolLock_jmd   deleted ConnectionPool rwlock"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        for (const bool traced : {false, true}) {  // the flag moves alike without the trace
            enableSocketTrace(traced ? prefix : "NoTrace");
            flConnectionPoolInitialized_jms = c.before;
            setRwlock([&c](std::string_view) {
                errno = c.error;
                return c.result;
            });
            c.operation();
            clearScripts();
            EXPECT_EQ(flConnectionPoolInitialized_jms, c.after);
        }
        EXPECT_EQ(traceLines(prefix),
                  (Lines{golden(1, "{ XASocket " + c.entry), golden(1, "  XASocket " + c.line),
                         golden(1, "} XASocket " + c.exit + " ")}));
    }
    // A pool action that cannot create the lock does nothing at all, an unknown one neither.
    setRwlock([](std::string_view) { return -1; });
    flConnectionPoolInitialized_jms = 0;
    int untouched = 7;
    connectionSocketPool_jms(4000, &untouched, 10);
    clearScripts();
    connectionSocketPool_jms(4000, &untouched, 11);
    EXPECT_EQ(untouched, 7);
    EXPECT_EQ(pool.numPorts, 0);
}

// Each case reads from a pooled socket with "abc" waiting; the unscripted poll and recv are real.
TEST_F(Pool, EveryEndingOfTheDeadlineBoundReceive) {
    const PollScript eintr = [](pollfd *, nfds_t, int) { return failWith(EINTR); };
    const PollScript ebadf = [](pollfd *, nfds_t, int) { return failWith(EBADF); };
    const PollScript pollErr = [](pollfd *fds, nfds_t, int) { return fds[0].revents = POLLERR; };
    const PollScript silence = [](pollfd *, nfds_t, int) { return 0; };
    const RecvScript eagain = [](int, void *, size_t, int) { return failWith(EAGAIN); };
    const RecvScript reset = [](int, void *, size_t, int) { return failWith(ECONNRESET); };
    // deadline from now, len, poll, recv, result, first poll timeout, the ending
    const std::tuple<int, int, PollScript, RecvScript, int, int, std::string> cases[] = {
        {-5, 8, nullptr, nullptr, 3, 0,
         "Successful read; data=3 originalTimeoutDiff=0 timeoutDiff=0 failureCount=0"},
        {-5, 8, nullptr, eagain, -99, 0,  // the remaining seconds are taken afresh after a retry
         "Timeout during select/poll loop as counter wegative; errno=11 originalTimeoutDiff=0 "
         "timeoutDiff=-5"},
        {20, 8, eintr, nullptr, -1, 20000,
         "Socket error: too many EINTRs/EAGAINs; errno=4 originalTimeoutDiff=20 timeoutDiff=20 "
         "failureCount=100"},
        {20, 8, ebadf, nullptr, -1, 20000,
         "Error during select/poll call; errno=9 originalTimeoutDiff=20 timeoutDiff=20"},
        {20, 8, pollErr, nullptr, -1, 20000,
         "Socket error: select/poll returned but without any data; errno=0 originalTimeoutDiff=20 "
         "timeoutDiff=20"},
        {20, 8, nullptr, reset, -1, 20000,
         "Error during recv call; errno=104 originalTimeoutDiff=20 timeoutDiff=20"},
        {INT_MAX - kNow, 8, silence, nullptr, -99, INT_MAX,  // beyond the poll range
         "Timeout during select/poll call; errno=0 originalTimeoutDiff=352668189 "
         "timeoutDiff=352668189"},
        {20, -1, nullptr, nullptr, 0, 20000,  // negative length
         "Successful read; data=0 originalTimeoutDiff=20 timeoutDiff=20 failureCount=0"}};
    const std::string line = "  XASocket recvTimeout   ";
    for (const auto &[deadline, len, onPoll, onRecv, result, firstTimeout, ending] : cases) {
        SCOPED_TRACE(ending);
        enableSocketTrace(prefix);
        poolPeer(4000, {'a', 'b', 'c'});
        std::vector<int> timeouts;
        setPoll([&, script = onPoll](pollfd *fds, nfds_t n, int timeout) {
            timeouts.push_back(timeout);
            return script ? script(fds, n, timeout) : realPoll(fds, n, timeout);
        });
        setRecv(onRecv);
        char buffer[8] = {};
        EXPECT_EQ(recvTimeout_jms(pool.row[0].slot[0].sockfd, buffer, len, kNow + deadline),
                  result);
        clearScripts();
        EXPECT_EQ(timeouts.at(0), firstTimeout);
        EXPECT_EQ(
            traceLines(prefix),
            (Lines{golden(1, "{ XASocket recvTimeout_jms "),
                   golden(1, line + "len=" + std::to_string(len) +
                                 " zeroHour=" + std::to_string(kNow + deadline) +
                                 " timeoutDiff=" + std::to_string(std::max(deadline, 0)) + " "),
                   golden(1, line + ending), golden(1, "} XASocket recvTimeout ")}));
    }
}

}  // namespace
