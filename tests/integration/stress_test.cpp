// Sixteen coordinator threads of one queue-manager process committing at once through the
// shared pool, against a broker and a pending xajms-listener that drops a connection now and
// then; without and with the socket trace. XAJMS_STRESS_COMMITS sets the commits per thread.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <numeric>
#include <set>
#include <thread>
#include <vector>

#include "pool/pool.h"
#include "support/fakes.h"
#include "support/listener_process.h"
#include "support/loopback.h"
#include "support/orlom.h"
#include "support/trace_file.h"

namespace {

using namespace xajms::test;

constexpr int kThreads = 16;
constexpr long kDropEvery = 97;  // the pending listener's, over all its requests

// Without and with the socket trace (its depth and prefix shared by the threads).
class Stress : public ::testing::TestWithParam<bool> {};

TEST_P(Stress, ConcurrentCommitsGiveDefinedCodesAndLeaveThePoolConsistent) {
    const std::string why = listenerPath().empty() ? "no xajms-listener here" : enterPrivateOrlom();
    if (!why.empty()) {
        GTEST_SKIP() << why;
    }
    const char *text = std::getenv("XAJMS_STRESS_COMMITS");
    const long asked = text != nullptr ? std::strtol(text, nullptr, 10) : 0;
    long commits = asked > 0 ? asked : 10000;
    TempDir dir;
    if (GetParam()) {
        // Every trace line opens the trace file: a traced run makes a hundredth of the commits.
        commits = std::max(1L, commits / 100);
        enableSocketTrace(dir.path() + "/stress");  // before the threads start
        // A clear closes descriptor 0 for emptied slots; a trace file on 0 may then write its
        // line into the socket that takes 0 next, raising SIGPIPE, which this host ignores.
        signal(SIGPIPE, SIG_IGN);
    } else {
        unsetenv("XAJMS_TRACEFILE");
    }
    occupyDescriptorZero();  // for the same reason, kept away from the listeners' pipes
    ListenerProcess broker({"--mode", "broker", "--quiet"});
    ListenerProcess pending(
        {"--quiet", "--mode=pending", "--drop-every", std::to_string(kDropEvery)});
    ASSERT_TRUE(broker.started() && pending.started());
    const int before = openDescriptors();
    // A failed read closes the sockets other threads hold; one whose descriptor went to another
    // thread's connection may wait for an answer that thread reads: 60 s, cut to 200 ms.
    setPoll([](pollfd *fds, nfds_t count, int timeout) {
        return realPoll(fds, count, std::min(timeout, 200));
    });

    std::vector<int> codes(static_cast<size_t>(kThreads * commits));
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, commits, mine = codes.begin() + t * commits] {
            for (long c = 0; c < commits; ++c) {
                XID xid{4711 + t, 12, 1, {}};  // distinct: the thread, then the commit
                std::snprintf(xid.data, sizeof xid.data, "t%02dc%08ldb", t, c);
                mine[c] = xa_commit_entry_jms(&xid, 1, TMNOFLAGS);
            }
        });
    }
    threads.clear();  // joins them

    // Both listeners answer 0; a dropped connection is a missing answer, XAER_RMFAIL, though a
    // commit whose request could not be written asks no further listener. A socket that lands
    // on descriptor 0 after a clear is taken for no socket and its port marked dead, after
    // which commits find no listener: how many succeed depends on the timing; some must.
    std::map<int, long> count;
    for (int code : codes) {
        count[code] += 1;
    }
    EXPECT_GT(count[XA_OK], 0);
    EXPECT_GE(count[XAER_RMFAIL], kThreads * commits / kDropEvery / 2);
    EXPECT_EQ(count.size(), 2U) << ::testing::PrintToString(count);  // no other code

    const ConnectionPool &pool = processConnectionPool_jms;
    ASSERT_LE(pool.numPorts, 2);  // the two listeners'
    std::set<int> pooled;
    for (int r = 0; r < pool.numPorts; ++r) {
        const PortRow &row = pool.row[r];
        ASSERT_LE(row.rows, xajms::pool::kMaxSockets);
        for (int i = 0; i < row.rows; ++i) {
            const SocketSlot &slot = row.slot[i];
            EXPECT_EQ(slot.inUse, 0) << "port " << row.port << " slot " << i;
            EXPECT_TRUE(slot.sockfd == 0 ||
                        (isOpen(slot.sockfd) && pooled.insert(slot.sockfd).second))
                << "port " << row.port << " slot " << i << " descriptor " << slot.sockfd;
        }
    }
    EXPECT_LE(openDescriptors(), before + 2 * xajms::pool::kMaxSockets);
}

INSTANTIATE_TEST_SUITE_P(, Stress, ::testing::Bool(),
                         [](const auto &p) { return p.param ? "Traced" : "Untraced"; });

// A hardened process: each thread sends its own request type, which both listeners answer
// with a code of that type alone, passed on unchanged by the entries. A dropped connection is
// asked again on a fresh one and a failed read replaces only its own socket, so every thread
// gets the answer to its own request; XAER_RMFAIL only when a retry is dropped as well.
TEST(StressHardened, EveryThreadGetsTheAnswerToItsOwnRequest) {
    const std::string why = listenerPath().empty() ? "no xajms-listener here" : enterPrivateOrlom();
    if (!why.empty()) {
        GTEST_SKIP() << why;
    }
    ASSERT_NE(OrloStartSafe(), nullptr);
    const char *text = std::getenv("XAJMS_STRESS_COMMITS");
    const long asked = text != nullptr ? std::strtol(text, nullptr, 10) : 0;
    const long calls = asked > 0 ? asked : 10000;
    unsetenv("XAJMS_TRACEFILE");
    const std::vector<std::string> codes = {"--quiet",    "--prepare", "3",        "--commit", "5",
                                            "--rollback", "6",         "--forget", "7"};
    auto with = [&codes](std::vector<std::string> args) {
        args.insert(args.end(), codes.begin(), codes.end());
        return args;
    };
    ListenerProcess broker(with({"--mode", "broker"}));
    ListenerProcess pending(with({"--mode=pending", "--drop-every", std::to_string(kDropEvery)}));
    ASSERT_TRUE(broker.started() && pending.started());
    // A wait that would last 60 s is cut to 200 ms: a lost answer fails the count, not the run.
    setPoll([](pollfd *fds, nfds_t count, int timeout) {
        return realPoll(fds, count, std::min(timeout, 200));
    });

    using Entry = int (*)(XID *, int, long);
    const std::pair<Entry, int> own[] = {{xa_prepare_entry_jms, XA_RDONLY},
                                         {xa_commit_entry_jms, XA_HEURMIX},
                                         {xa_rollback_entry_jms, XA_HEURRB},
                                         {xa_forget_entry_jms, XA_HEURCOM}};
    std::vector<long> wrong(kThreads), failed(kThreads);
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, calls, &own, &wrong, &failed] {
            const auto &[entry, code] = own[t % 4];
            for (long c = 0; c < calls; ++c) {
                XID xid{4711 + t, 12, 1, {}};
                std::snprintf(xid.data, sizeof xid.data, "t%02dc%08ldb", t, c);
                const int got = entry(&xid, 1, TMNOFLAGS);
                failed[t] += got == XAER_RMFAIL ? 1 : 0;
                wrong[t] += got != code && got != XAER_RMFAIL ? 1 : 0;
            }
        });
    }
    threads.clear();  // joins them

    const long drops = kThreads * calls / kDropEvery;
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(wrong[t], 0) << "thread " << t;
    }
    EXPECT_LT(std::accumulate(failed.begin(), failed.end(), 0L), drops / 10 + 1)
        << drops << " dropped";
    for (const PortRow &row : processConnectionPool_jms.row) {
        for (const SocketSlot &slot : row.slot) {
            EXPECT_EQ(slot.inUse, 0) << "port " << row.port;
        }
    }
}

}  // namespace
