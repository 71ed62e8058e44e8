// What the calls of all processes add up to, in bounded memory: per function the count and
// the duration quantiles, results by code, the slowest calls, the calls that did not return
// XA_OK, the transactions by XID and, for the page, the calls to draw.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "calls.h"
#include "input.h"

namespace xajms::trace_tool {

// Durations in microseconds, counted in buckets of three significant digits: quantiles are
// exact below a millisecond and within 1% above, whatever the number of calls.
class Durations {
  public:
    void add(std::int64_t micros);
    // The nearest-rank quantile (q from 0 to 1), rounded down to its bucket; 0 when empty.
    std::int64_t quantile(double q) const;
    std::int64_t max() const { return max_; }
    std::uint64_t count() const { return count_; }

  private:
    std::map<std::uint32_t, std::uint64_t> buckets_;
    std::uint64_t count_ = 0;
    std::int64_t max_ = 0;
};

struct FunctionStats {
    std::uint64_t calls = 0;
    std::uint64_t unpaired = 0;  // no entry or no exit line: no duration
    Durations durations;
};

struct Transaction {
    std::vector<Call> steps;  // the XA entries that carried its XID
    std::uint64_t stepsDropped = 0;
};

struct Lane {
    std::string file;
    std::string pid;
    std::uint64_t calls = 0;
};

// The bounds that keep memory flat on any input; what goes beyond them is counted.
struct Limits {
    std::size_t functions = 1000;
    std::size_t slowest = 10;
    std::size_t failures = 1000;
    std::size_t transactions = 100000;
    std::size_t stepsPerTransaction = 256;
    std::size_t timeline = 50000;  // calls kept for the page; only with keepTimeline
};

class Summary {
  public:
    explicit Summary(Limits limits = {}) : limits_(limits) {}

    // Keep the calls for the timeline page; keep only this transaction (notation) when set.
    bool keepTimeline = false;
    std::optional<std::string> onlyXid;

    // The lane of a process: one per file and pid.
    std::size_t lane(const std::string &file, std::string_view pid);
    void add(Call &&call);

    // Reading.
    std::vector<std::string> files;
    ReadCounts read;
    std::uint64_t malformed = 0;
    std::uint64_t unreadable = 0;  // files that could not be read
    std::int64_t first = 0, last = 0;  // the earliest and latest time stamp read
    bool timed = false;                // whether any line was read

    // Results.
    std::vector<Lane> lanes;
    std::map<std::string, FunctionStats> functions;
    std::uint64_t functionsDropped = 0;  // calls of functions beyond the limit
    std::map<int, std::uint64_t> results;
    std::vector<Call> slowest;  // longest first
    std::vector<Call> failures;
    std::uint64_t failuresDropped = 0;
    std::uint64_t failuresTotal() const { return failures.size() + failuresDropped; }
    std::unordered_map<std::string, Transaction> transactions;
    std::uint64_t transactionsDropped = 0;
    std::vector<Call> timeline;
    std::uint64_t timelineDropped = 0;
    std::uint64_t calls = 0;

    // The steps of one transaction in time order; empty when it is not known.
    std::vector<Call> story(const std::string &xid) const;

  private:
    void keepSlowest(const Call &call);
    void keepStep(const Call &call);

    Limits limits_;
    std::map<std::pair<std::string, std::string>, std::size_t> laneIndex_;
};

// Feeds the lines of one file into a summary: one pairing per process of the file (a file
// normally holds one). finish() ends the calls still open.
class FileReader {
  public:
    FileReader(Summary &summary, std::string file);
    void line(std::string_view text);
    void finish();

  private:
    Summary &summary_;
    std::string file_;
    std::map<std::string, std::unique_ptr<Pairing>, std::less<>> pairings_;
};

// Reads every file into a summary. Returns false when a file could not be read (the others
// are still read; why names the last failure).
bool readTraces(const std::vector<std::string> &files, Summary &summary, std::string &why);

}  // namespace xajms::trace_tool
