// Sixteen coordinator threads of one queue-manager process committing at once through the
// shared pool, against a broker and a pending xajms-listener that drops a connection now and
// then; without and with the socket trace. XAJMS_STRESS_COMMITS sets the commits per thread.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
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

constexpr int kThreads = 16;
constexpr int kListeners = 2;
constexpr long kDropEvery = 97;  // the pending listener's, over all its requests

long commitsPerThread() {
    const char *text = std::getenv("XAJMS_STRESS_COMMITS");
    const long commits = text != nullptr ? std::strtol(text, nullptr, 10) : 10000;
    return commits > 0 ? commits : 10000;
}

// Without and with the socket trace (its depth and prefix shared by the threads).
class Stress : public ::testing::TestWithParam<bool> {};

TEST_P(Stress, ConcurrentCommitsGiveDefinedCodesAndLeaveThePoolConsistent) {
    if (xajms::test::listenerPath().empty()) {
        GTEST_SKIP() << "xajms-listener is not part of this build";
    }
    if (const std::string why = xajms::test::enterPrivateOrlom(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    // Every trace line opens the trace file: a traced run makes a hundredth of the commits.
    xajms::test::TempDir dir;
    const bool traced = GetParam();
    if (traced) {
        xajms::test::enableSocketTrace(dir.path() + "/stress");  // before the threads start
        // A clear closes descriptor 0 for emptied slots; a trace file on 0 may then write its
        // line into the socket that takes 0 next, raising SIGPIPE, which this host ignores.
        signal(SIGPIPE, SIG_IGN);
    } else {
        unsetenv("XAJMS_TRACEFILE");
    }
    // Emptied pool slots close descriptor 0; keep it away from the listeners' pipes.
    xajms::test::occupyDescriptorZero();
    xajms::test::ListenerProcess broker({"--mode", "broker", "--quiet"});
    xajms::test::ListenerProcess pending(
        {"--mode", "pending", "--drop-every", std::to_string(kDropEvery), "--quiet"});
    ASSERT_TRUE(broker.started() && pending.started());
    const int before = xajms::test::openDescriptors();
    const long commits = traced ? std::max(1L, commitsPerThread() / 100) : commitsPerThread();
    // A failed read closes the sockets other threads hold; one whose descriptor went to another
    // thread's connection may wait for an answer that thread reads: 60 s, cut to 200 ms.
    xajms::test::setPoll([](pollfd *fds, nfds_t count, int timeout) {
        return xajms::test::realPoll(fds, count, std::min(timeout, 200));
    });

    std::vector<std::vector<int>> codes(kThreads, std::vector<int>(static_cast<size_t>(commits)));
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, commits, &mine = codes[static_cast<size_t>(t)]] {
            for (long c = 0; c < commits; ++c) {
                XID xid{4711 + t, 12, 1, {}};  // distinct: the thread, then the commit
                std::snprintf(xid.data, sizeof xid.data, "t%02dc%08ldb", t, c);
                mine[static_cast<size_t>(c)] = xa_commit_entry_jms(&xid, 1, TMNOFLAGS);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    xajms::test::clearScripts();

    // Both listeners answer 0; a dropped connection is a missing answer, XAER_RMFAIL. A commit
    // whose request could not be written asks no further listener, so not every drop is seen.
    std::map<int, long> count;
    for (const auto &mine : codes) {
        for (int code : mine) {
            count[code] += 1;
        }
    }
    // A clear closes descriptor 0 for emptied slots; a new socket that then lands on 0 is
    // taken for no socket and its port marked dead, after which commits find no listener. So
    // how many succeed depends on the timing; some must.
    EXPECT_GT(count[XA_OK], 0);
    EXPECT_GE(count[XAER_RMFAIL], kThreads * commits / kDropEvery / 2);
    count.erase(XA_OK);
    count.erase(XAER_RMFAIL);
    EXPECT_TRUE(count.empty()) << "first other code " << count.begin()->first;

    const ConnectionPool &pool = processConnectionPool_jms;
    ASSERT_LE(pool.numPorts, kListeners);
    std::set<int> pooled;
    for (int r = 0; r < pool.numPorts; ++r) {
        const PortRow &row = pool.row[r];
        ASSERT_LE(row.rows, xajms::pool::kMaxSockets);
        for (int i = 0; i < row.rows; ++i) {
            const SocketSlot &slot = row.slot[i];
            SCOPED_TRACE("port " + std::to_string(row.port) + " slot " + std::to_string(i));
            EXPECT_EQ(slot.inUse, 0);
            EXPECT_TRUE(slot.sockfd == 0 || xajms::test::isOpen(slot.sockfd));
            EXPECT_TRUE(slot.sockfd == 0 || pooled.insert(slot.sockfd).second);
        }
    }
    EXPECT_LE(xajms::test::openDescriptors(), before + kListeners * xajms::pool::kMaxSockets);
}

INSTANTIATE_TEST_SUITE_P(, Stress, ::testing::Bool(),
                         [](const auto &p) { return p.param ? "Traced" : "Untraced"; });

}  // namespace
