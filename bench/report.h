// What a benchmark run found, and its three renderings: the table on standard output, the
// JSON file, and the data file of the latency-against-threads plot.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "stats.h"

namespace xajms::bench {

// One measured item. A limit row has no limit of its own (limit -1).
struct Row {
    std::string key;    // "commit.4", "raw.4", "recover.1000", "rawrecover.1000", ...
    std::string label;  // as printed
    int limit = -1;     // index of the row it is compared with
    int threads = 0;    // threads or sockets in parallel; 0 when not part of the thread scan
    Summary summary;
    std::uint64_t failures = 0;
    std::optional<double> connectsPer10k;
};

// System calls per operation by name ("total" for all), from strace, for each child mode:
// "raw" and "commit" round trips, "rawrecover" and "recover" transfers.
struct SyscallReport {
    std::map<std::string, std::map<std::string, double>> byMode;
    int operations = 0;
};

struct Machine {
    std::string cpu;
    int cores = 0;
    std::string kernel;
    double loadBefore = 0;
    double loadAfter = 0;
};

struct Report {
    Machine machine;
    std::vector<Row> rows;
    std::optional<SyscallReport> syscalls;
    // The spread of the single-socket raw round trip's p50 over the rounds: the noise.
    double roundP50MinUs = 0;
    double roundP50MaxUs = 0;
    int rounds = 0;
    bool smoke = false;
};

// One goal of the commit path, as measured.
struct Goal {
    std::string text;
    double measured = 0;
    double bound = 0;
    bool atMost = true;  // measured must be <= bound, else >= bound
    bool met() const { return atMost ? measured <= bound : measured >= bound; }
};

// The goals evaluated on the rows; a goal whose rows are missing is left out.
std::vector<Goal> goals(const Report &report);

void printReport(const Report &report);
bool writeJson(const Report &report, const std::string &path);
// "threads raw_p50 raw_p99 commit_p50 commit_p99" in microseconds, one line a thread count.
bool writePlotData(const Report &report, const std::string &path);

// The row with the key, or null.
const Row *findRow(const Report &report, const std::string &key);

}  // namespace xajms::bench
