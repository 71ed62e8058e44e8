// The benchmark's arithmetic: percentiles, rates, strace summaries, system calls per
// operation and the goals read off the rows. A slip here would misreport every run.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>

#include "report.h"
#include "stats.h"

namespace xajms::bench {
namespace {

std::vector<double> oneTo(int n) {
    std::vector<double> v(static_cast<std::size_t>(n));
    std::iota(v.begin(), v.end(), 1.0);
    std::shuffle(v.begin(), v.end(), std::mt19937(42));
    return v;
}

TEST(BenchStats, PercentileIsTheNearestRank) {
    struct Case {
        std::vector<double> samples;
        double fraction;
        double expected;
    };
    const Case cases[] = {
        {{}, 0.5, 0},          {{7}, 0.99, 7},         {{4, 1, 3, 2}, 0.5, 2},   {{5, 1}, 1.0, 5},
        {oneTo(100), 0.5, 50}, {oneTo(100), 0.99, 99}, {oneTo(1000), 0.99, 990}, {oneTo(3), 0.0, 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.samples.size() << " samples, fraction " << c.fraction);
        auto samples = c.samples;
        EXPECT_EQ(percentileNs(samples, c.fraction), c.expected);
    }
}

TEST(BenchStats, SummaryTakesTheMedianRoundAndIsInMicroseconds) {
    // Two of five rounds slowed down: neither the p50 nor the rate follows them.
    const Summary s =
        summarize(oneTo(100), {7000, 90000, 6000, 8000, 95000}, {900, 2000, 100, 2100, 1000}, 1000);
    EXPECT_DOUBLE_EQ(s.p50Us, 8.0);
    EXPECT_DOUBLE_EQ(s.p99Us, 0.099);
    EXPECT_DOUBLE_EQ(s.callsPerSecond, 1000);
    EXPECT_EQ(s.calls, 1000u);
    const Summary noRounds = summarize(oneTo(100), {}, {}, 100);
    EXPECT_DOUBLE_EQ(noRounds.p50Us, 0.050);
    EXPECT_EQ(noRounds.callsPerSecond, 0);
}

constexpr char kSummary[] = R"(syscall              calls
---------------- ---------
sendto                2010
poll                  2010
recvfrom              2010
connect                  1
---------------- ---------
total                 6031
)";

TEST(BenchStats, StraceSummaryIsReadByName) {
    const auto counts = parseStraceSummary(kSummary);
    ASSERT_TRUE(counts.has_value());
    EXPECT_EQ(counts->total, 6031);
    EXPECT_EQ(counts->byName.at("poll"), 2010);
    EXPECT_EQ(counts->byName.at("connect"), 1);
    EXPECT_EQ(counts->byName.count("syscall"), 0u);
    EXPECT_FALSE(parseStraceSummary("syscall calls\nsendto 12\n").has_value());
    EXPECT_FALSE(parseStraceSummary("").has_value());
}

TEST(BenchStats, PerOperationCancelsWhatBothRunsShare) {
    SyscallCounts shortRun{{{"sendto", 210}, {"execve", 1}, {"connect", 1}}, 212};
    SyscallCounts longRun{{{"sendto", 2210}, {"execve", 1}, {"connect", 1}, {"brk", 4000}}, 6212};
    const auto per = perOperation(shortRun, 200, longRun, 2200);
    EXPECT_DOUBLE_EQ(per.at("sendto"), 1.0);
    EXPECT_DOUBLE_EQ(per.at("brk"), 2.0);
    EXPECT_DOUBLE_EQ(per.at("total"), 3.0);
    EXPECT_EQ(per.count("execve"), 0u);
    EXPECT_EQ(per.count("connect"), 0u);
    EXPECT_TRUE(perOperation(shortRun, 200, longRun, 200).empty());
}

Row row(const char *key, double p50Us, double callsPerSecond) {
    Row r;
    r.key = key;
    r.summary.p50Us = p50Us;
    r.summary.callsPerSecond = callsPerSecond;
    return r;
}

TEST(BenchStats, GoalsCompareEachItemWithItsLimit) {
    Report report;
    report.rows = {row("raw.1", 10, 0),           row("commit.1", 10.5, 0),
                   row("raw.4", 0, 40000),        row("commit.4", 0, 35000),
                   row("rawrecover.1000", 20, 0), row("recover.1000", 31, 0)};
    report.rows[1].connectsPer10k = 0.0;
    const auto g = goals(report);
    ASSERT_EQ(g.size(), 4u);
    const struct {
        double measured;
        bool met;
    } expected[] = {{1.05, true}, {0, true}, {0.875, false}, {1.55, false}};
    for (std::size_t i = 0; i < g.size(); ++i) {
        SCOPED_TRACE(g[i].text);
        EXPECT_DOUBLE_EQ(g[i].measured, expected[i].measured);
        EXPECT_EQ(g[i].met(), expected[i].met);
    }
    report.rows.resize(2);
    EXPECT_EQ(goals(report).size(), 2u);
}

}  // namespace
}  // namespace xajms::bench
