// Sixteen coordinator threads of one queue-manager process committing at once through the
// shared pool, against a broker and a pending xajms-listener that drops a connection now and
// then and answer each thread's XID with a code of its own; without and with the socket trace.
// XAJMS_STRESS_COMMITS sets the commits per thread.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <latch>
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
    } else {
        unsetenv("XAJMS_TRACEFILE");
    }
    occupyDescriptorZero();  // a socket on descriptor 0 would be taken for none
    // Each thread commits its own XID over and over, and both listeners answer it with the
    // thread's own code, one that no XA code has (passed on as it is): an answer that reaches
    // the wrong thread shows as another thread's code.
    const auto xidOf = [](int t) {
        return XID{4711 + t, 2, 1, {'t', static_cast<char>('a' + t), 'b'}};
    };
    const auto codeOf = [](int t) { return 1000 + t; };
    std::vector<std::string> answers;
    for (int t = 0; t < kThreads; ++t) {
        char rule[64];
        std::snprintf(rule, sizeof rule, "--answer=%d:t%c:b=%d", 4711 + t, 'a' + t, codeOf(t));
        answers.emplace_back(rule);
    }
    auto args = [&answers](std::vector<std::string> own) {
        own.insert(own.end(), answers.begin(), answers.end());
        return own;
    };
    ListenerProcess broker(args({"--mode", "broker", "--quiet"}));
    ListenerProcess pending(
        args({"--quiet", "--mode=pending", "--drop-every", std::to_string(kDropEvery)}));
    ASSERT_TRUE(broker.started() && pending.started());
    const int before = openDescriptors();
    // A thread whose answer another thread read would wait 60 s for it: cut to 5 s.
    setPoll([](pollfd *fds, nfds_t count, int timeout) {
        return realPoll(fds, count, std::min(timeout, 5000));
    });

    std::vector<int> codes(static_cast<size_t>(kThreads * commits));
    std::vector<std::jthread> threads;
    std::latch ready(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back(
            [commits, xid = xidOf(t), mine = codes.begin() + t * commits, &ready]() mutable {
                // Every thread opens, as a coordinator opens each thread's resource manager:
                // the first opens race to create the open table, and no copy may be left.
                char openString[] = "qm=QM1";
                ready.arrive_and_wait();
                EXPECT_EQ(xa_open_entry_jms(openString, 1, TMNOFLAGS), XA_OK);
                for (long c = 0; c < commits; ++c) {
                    mine[c] = xa_commit_entry_jms(&xid, 1, TMNOFLAGS);
                }
            });
    }
    threads.clear();  // joins them

    // Both listeners are asked for every commit, and each request the pending one drops is a
    // missing answer, XAER_RMFAIL. Every other commit gets its own thread's code: a failed
    // read empties the pool, but the sockets other threads are using stay theirs until they
    // give them back, so no other exchange fails with it and no answer goes astray.
    std::map<std::string, long> count{{"XAER_RMFAIL", 0}, {"own", 0}};  // commits by outcome
    for (int t = 0; t < kThreads; ++t) {
        for (long c = 0; c < commits; ++c) {
            const int code = codes[static_cast<size_t>(t * commits + c)];
            const bool other = code != codeOf(t) && code >= codeOf(0) && code < codeOf(kThreads);
            count[code == codeOf(t)     ? "own"
                  : code == XAER_RMFAIL ? "XAER_RMFAIL"
                  : other               ? "another thread's"
                                        : std::to_string(code)] += 1;
        }
    }
    const long dropped = kThreads * commits / kDropEvery;
    EXPECT_EQ(count, (std::map<std::string, long>{{"XAER_RMFAIL", dropped},
                                                  {"own", kThreads * commits - dropped}}));

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

// Coordinator threads of a queue-manager process that each open, recover and close over and
// over: a last close frees the open table that another thread's open or recover is reading,
// unless the table and the open count are guarded. Every open is counted and every close
// counted down, so the count ends at 0 with the table freed.
TEST(StressOpens, OpensRecoversAndClosesOfManyThreadsKeepTheCountAndTheTable) {
    if (const std::string why = enterPrivateOrlom(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    unsetenv("XAJMS_TRACEFILE");
    constexpr long kRounds = 10000;
    std::vector<long> failed(kThreads);
    std::vector<std::jthread> threads;
    std::latch ready(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &failed, &ready] {
            char openString[] = "qm=QM1";
            XID found[2] = {};
            ready.arrive_and_wait();
            for (long r = 0; r < kRounds; ++r) {
                failed[t] += xa_open_entry_jms(openString, 1 + t % 3, TMNOFLAGS) != XA_OK;
                failed[t] += xa_recover_entry_jms(found, 2, 1 + t % 3, TMSTARTRSCAN) != 0;
                failed[t] += xa_close_entry_jms(openString, 1 + t % 3, TMNOFLAGS) != XA_OK;
            }
        });
    }
    threads.clear();  // joins them
    EXPECT_EQ(std::accumulate(failed.begin(), failed.end(), 0L), 0);
    EXPECT_EQ(intXAOpen_jms, 0);
    EXPECT_EQ(pRmidOpenstrTable, nullptr);
}

}  // namespace
