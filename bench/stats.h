// The arithmetic of the benchmark: latency percentiles and rates of a measured run, and the
// reading of strace's call summary, kept apart from the measuring so that it can be tested.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace xajms::bench {

// What one measured item reports: latencies in microseconds and completed calls a second.
struct Summary {
    double p50Us = 0;
    double p99Us = 0;
    double callsPerSecond = 0;
    std::uint64_t calls = 0;
};

// The nearest-rank percentile (fraction 0.5 for p50) of latencies in nanoseconds; the
// vector is partially reordered. 0 for no samples.
double percentileNs(std::vector<double> &latenciesNs, double fraction);

// A run measured in rounds: p50 is the median of the rounds' p50s and the rate the median of
// their calls a second, so that rounds another process slowed down, fewer than half of
// them, cannot move either; p99 is taken over all the latencies. Without rounds, p50 is
// taken over all the latencies and the rate is 0.
Summary summarize(std::vector<double> latenciesNs, std::vector<double> roundP50sNs,
                  std::vector<double> roundRates, std::uint64_t calls);

// The system calls strace -c counted, by name, with the total; read from the summary that
// "strace -c -U name,calls" writes. Nothing when the text holds no total line.
struct SyscallCounts {
    std::map<std::string, long long> byName;
    long long total = 0;
};
std::optional<SyscallCounts> parseStraceSummary(std::string_view text);

// Calls per operation between two runs of the same program that differ only in the number
// of operations: whatever start-up and warm-up cost cancels out. Counts of a name the
// shorter run did not make read as 0.
std::map<std::string, double> perOperation(const SyscallCounts &shortRun, long long shortOps,
                                           const SyscallCounts &longRun, long long longOps);

}  // namespace xajms::bench
