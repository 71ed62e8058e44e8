// Adding calls up per function, per result and per transaction, with every table bounded,
// and reading the files into it line by line.
#include "summary.h"

#include <algorithm>
#include <cmath>
#include <memory>

namespace xajms::trace_tool {

namespace {

constexpr std::size_t kMaxLanes = 1000;
constexpr std::uint32_t kExactBelow = 1000;       // microseconds counted one by one
constexpr std::uint32_t kBucketsPerDecade = 900;  // three significant digits: 100 to 999

std::uint32_t bucketOf(std::int64_t micros) {
    if (micros < kExactBelow) {
        return static_cast<std::uint32_t>(micros);
    }
    std::uint32_t decade = 0;
    while (micros >= 1000) {
        micros /= 10;
        ++decade;
    }
    return kExactBelow + (decade - 1) * kBucketsPerDecade +
           static_cast<std::uint32_t>(micros - 100);
}

std::int64_t valueOf(std::uint32_t bucket) {
    if (bucket < kExactBelow) {
        return bucket;
    }
    const std::uint32_t decade = (bucket - kExactBelow) / kBucketsPerDecade + 1;
    std::int64_t value = 100 + (bucket - kExactBelow) % kBucketsPerDecade;
    for (std::uint32_t i = 0; i < decade; ++i) {
        value *= 10;
    }
    return value;
}

bool slower(const Call &a, const Call &b) {
    return a.duration() != b.duration() ? a.duration() > b.duration() : a.start < b.start;
}

}  // namespace

void Durations::add(std::int64_t micros) {
    micros = std::max<std::int64_t>(micros, 0);
    ++buckets_[bucketOf(micros)];
    ++count_;
    max_ = std::max(max_, micros);
}

std::int64_t Durations::quantile(double q) const {
    if (count_ == 0) {
        return 0;
    }
    const auto rank = std::max<std::uint64_t>(
        1, static_cast<std::uint64_t>(std::ceil(q * static_cast<double>(count_))));
    std::uint64_t seen = 0;
    for (const auto &[bucket, n] : buckets_) {
        seen += n;
        if (seen >= rank) {
            return std::min(valueOf(bucket), max_);
        }
    }
    return max_;
}

std::size_t Summary::lane(const std::string &file, std::string_view pid) {
    const auto key = std::make_pair(file, std::string(pid));
    const auto [it, added] = laneIndex_.try_emplace(key, lanes.size());
    if (added) {
        lanes.push_back({file, std::string(pid), 0});
    }
    return it->second;
}

void Summary::add(Call &&call) {
    ++calls;
    ++lanes[call.lane].calls;
    auto fn = functions.find(call.function);
    if (fn == functions.end() && functions.size() < limits_.functions) {
        fn = functions.emplace(call.function, FunctionStats{}).first;
    }
    if (fn == functions.end()) {
        ++functionsDropped;
    } else if (call.entered && call.exited) {
        ++fn->second.calls;
        fn->second.durations.add(call.duration());
    } else {
        ++fn->second.calls;
        ++fn->second.unpaired;
    }
    if (call.result) {
        ++results[*call.result];
    }
    if (call.entered && call.exited) {
        keepSlowest(call);
    }
    if (call.result && *call.result != 0) {
        if (failures.size() < limits_.failures) {
            failures.push_back(call);
        } else {
            ++failuresDropped;
        }
    }
    if (call.xaEntry() && !call.xid.empty()) {
        keepStep(call);
    }
    if (keepTimeline) {
        if (timeline.size() < limits_.timeline) {
            timeline.push_back(std::move(call));
        } else {
            ++timelineDropped;
        }
    }
}

void Summary::keepSlowest(const Call &call) {
    if (slowest.size() == limits_.slowest && !slower(call, slowest.back())) {
        return;
    }
    slowest.insert(std::upper_bound(slowest.begin(), slowest.end(), call, slower), call);
    if (slowest.size() > limits_.slowest) {
        slowest.pop_back();
    }
}

void Summary::keepStep(const Call &call) {
    if (onlyXid && call.xid != *onlyXid) {
        return;
    }
    auto it = transactions.find(call.xid);
    if (it == transactions.end()) {
        if (transactions.size() >= limits_.transactions) {
            ++transactionsDropped;
            return;
        }
        it = transactions.emplace(call.xid, Transaction{}).first;
    }
    if (it->second.steps.size() < limits_.stepsPerTransaction) {
        it->second.steps.push_back(call);
    } else {
        ++it->second.stepsDropped;
    }
}

std::vector<Call> Summary::story(const std::string &xid) const {
    const auto it = transactions.find(xid);
    if (it == transactions.end()) {
        return {};
    }
    std::vector<Call> steps = it->second.steps;
    std::stable_sort(steps.begin(), steps.end(),
                     [](const Call &a, const Call &b) { return a.start < b.start; });
    return steps;
}

FileReader::FileReader(Summary &summary, std::string file)
    : summary_(summary), file_(std::move(file)) {
    summary_.files.push_back(file_);
}

void FileReader::line(std::string_view text) {
    const std::optional<TraceLine> line = parseTraceLine(text);
    if (!line) {
        ++summary_.malformed;
        return;
    }
    auto it = pairings_.find(line->pid);
    if (it == pairings_.end() && summary_.lanes.size() >= kMaxLanes) {
        ++summary_.malformed;  // junk that happens to look like a line of a new process
        return;
    }
    if (it == pairings_.end()) {
        const std::size_t lane = summary_.lane(file_, line->pid);
        auto pairing = std::make_unique<Pairing>(
            lane, [this](Call &&call) { summary_.add(std::move(call)); });
        it = pairings_.emplace(std::string(line->pid), std::move(pairing)).first;
    }
    summary_.first = summary_.timed ? std::min(summary_.first, line->micros) : line->micros;
    summary_.last = summary_.timed ? std::max(summary_.last, line->micros) : line->micros;
    summary_.timed = true;
    it->second->line(*line);
}

void FileReader::finish() {
    for (auto &[pid, pairing] : pairings_) {
        pairing->finish();
    }
}

bool readTraces(const std::vector<std::string> &files, Summary &summary, std::string &why) {
    bool allRead = true;
    for (const std::string &file : files) {
        FileReader reader(summary, file);
        std::string failed;
        if (!readLines(
                file, [&reader](std::string_view text) { reader.line(text); }, summary.read,
                failed)) {
            ++summary.unreadable;
            why = failed;
            allRead = false;
        }
        reader.finish();
    }
    return allRead;
}

}  // namespace xajms::trace_tool
