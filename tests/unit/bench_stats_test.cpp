// The benchmark's arithmetic: a slip here would misreport every run.
#include <gtest/gtest.h>

#include "report.h"
#include "stats.h"

namespace xajms::bench {
namespace {

TEST(BenchStats, PercentileIsTheNearestRankAndP50TheMedianOfTheRounds) {
    const auto p = [](std::vector<double> v, double fraction) { return percentileNs(v, fraction); };
    EXPECT_EQ((std::vector{p({}, 0.5), p({4, 1, 3, 2}, 0.5), p({5, 1}, 1.0), p({3, 1, 2}, 0.0)}),
              (std::vector<double>{0, 2, 5, 1}));
    // Two of five rounds slowed down: neither the p50 nor the rate follows them.
    const Summary s = summarize({300, 100, 200}, {7000, 90000, 6000, 8000, 95000},
                                {900, 2000, 100, 2100, 1000}, 1000);
    EXPECT_EQ(std::tuple(s.p50Us, s.p99Us, s.callsPerSecond, s.calls),
              std::tuple(8.0, 0.3, 1000.0, 1000u));
    EXPECT_EQ(summarize({300, 100, 200}, {}, {}, 3).p50Us, 0.2);  // no rounds: over all
}

TEST(BenchStats, SyscallsPerOperationCancelWhatBothRunsShare) {
    const SyscallCounts shortRun = parseStraceSummary("sendto 210\nexecve 1\ntotal 211\n").value();
    const SyscallCounts longRun =
        parseStraceSummary("syscall calls\nsendto 2210\nexecve 1\nbrk 4000\ntotal 6211\n").value();
    EXPECT_EQ(perOperation(shortRun, 200, longRun, 2200),
              (std::map<std::string, double>{{"brk", 2}, {"sendto", 1}, {"total", 3}}));
    EXPECT_TRUE(perOperation(shortRun, 200, longRun, 200).empty());
    EXPECT_FALSE(parseStraceSummary("syscall calls\nsendto 12\n").has_value());
}

Row row(const char *key, double p50Us, double rate, std::optional<double> connectsPer10k = {}) {
    return {key, "", -1, 0, {p50Us, 0, rate, 0}, 0, connectsPer10k};
}

TEST(BenchStats, GoalsCompareEachItemWithItsLimit) {
    Report report;
    report.rows = {row("raw.1", 10, 0),           row("commit.1", 10.5, 0, 0.0),
                   row("raw.4", 0, 40000),        row("commit.4", 0, 35000),
                   row("rawrecover.1000", 20, 0), row("recover.1000", 31, 0)};
    std::vector<std::pair<double, bool>> measured;
    for (const Goal &g : goals(report)) {
        measured.emplace_back(g.measured, g.met());
    }
    EXPECT_EQ(measured, (std::vector<std::pair<double, bool>>{
                            {1.05, true}, {0, true}, {0.875, false}, {1.55, false}}));
    report.rows.resize(2);  // a goal whose rows are missing is left out
    EXPECT_EQ(goals(report).size(), 2u);
}

}  // namespace
}  // namespace xajms::bench
