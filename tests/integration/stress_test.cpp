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

}  // namespace
