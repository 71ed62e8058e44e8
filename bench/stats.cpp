// Percentiles, rates and the strace summary reader of the benchmark.
#include "stats.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace xajms::bench {

double percentileNs(std::vector<double> &latenciesNs, double fraction) {
    if (latenciesNs.empty()) {
        return 0;
    }
    // Nearest rank: the smallest sample with at least `fraction` of the samples at or below it.
    const auto n = static_cast<double>(latenciesNs.size());
    auto rank = static_cast<std::size_t>(std::ceil(fraction * n));
    rank = std::clamp<std::size_t>(rank, 1, latenciesNs.size());
    const auto nth = latenciesNs.begin() + static_cast<std::ptrdiff_t>(rank - 1);
    std::nth_element(latenciesNs.begin(), nth, latenciesNs.end());
    return *nth;
}

Summary summarize(std::vector<double> latenciesNs, std::vector<double> roundP50sNs,
                  std::vector<double> roundRates, std::uint64_t calls) {
    Summary s;
    s.calls = calls;
    s.p50Us =
        (roundP50sNs.empty() ? percentileNs(latenciesNs, 0.50) : percentileNs(roundP50sNs, 0.50)) /
        1000.0;
    s.p99Us = percentileNs(latenciesNs, 0.99) / 1000.0;
    s.callsPerSecond = percentileNs(roundRates, 0.50);
    return s;
}

namespace {

// Splits a line into its blank-separated words.
std::vector<std::string_view> words(std::string_view line) {
    std::vector<std::string_view> out;
    std::size_t at = 0;
    while (at < line.size()) {
        const std::size_t start = line.find_first_not_of(" \t", at);
        if (start == std::string_view::npos) {
            break;
        }
        const std::size_t end = std::min(line.find_first_of(" \t", start), line.size());
        out.push_back(line.substr(start, end - start));
        at = end;
    }
    return out;
}

std::optional<long long> number(std::string_view text) {
    long long value = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || ptr != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

std::optional<SyscallCounts> parseStraceSummary(std::string_view text) {
    SyscallCounts counts;
    bool sawTotal = false;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const auto w = words(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        if (w.size() != 2) {
            continue;
        }
        const auto calls = number(w[1]);
        if (!calls) {
            continue;  // the heading "syscall calls"
        }
        if (w[0] == "total") {
            counts.total = *calls;
            sawTotal = true;
        } else {
            counts.byName[std::string(w[0])] += *calls;
        }
    }
    if (!sawTotal) {
        return std::nullopt;
    }
    return counts;
}

std::map<std::string, double> perOperation(const SyscallCounts &shortRun, long long shortOps,
                                           const SyscallCounts &longRun, long long longOps) {
    std::map<std::string, double> out;
    const double ops = static_cast<double>(longOps - shortOps);
    if (ops <= 0) {
        return out;
    }
    auto countIn = [](const SyscallCounts &run, const std::string &name) {
        const auto it = run.byName.find(name);
        return it == run.byName.end() ? 0LL : it->second;
    };
    for (const auto &[name, calls] : longRun.byName) {
        const long long extra = calls - countIn(shortRun, name);
        if (extra != 0) {
            out[name] = static_cast<double>(extra) / ops;
        }
    }
    out["total"] = static_cast<double>(longRun.total - shortRun.total) / ops;
    return out;
}

}  // namespace xajms::bench
