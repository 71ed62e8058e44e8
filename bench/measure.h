// Timing of calls: each call timed on its own by the monotonic clock, from one or more
// threads that start together, and batches of very short calls timed as a whole.
#pragma once

#include <algorithm>
#include <barrier>
#include <cstdint>
#include <ctime>
#include <thread>
#include <vector>

#include "stats.h"

namespace xajms::bench {

// The latencies of the calls of a run and how long the run took.
struct Run {
    std::vector<double> latenciesNs;
    double wallSeconds = 0;
    std::uint64_t failures = 0;
    // Calls that one sample stands for: 1, or the size of a timed batch.
    int callsPerSample = 1;
    // Calls a second of each run added up here, so that a round the machine slowed down
    // cannot move the rate much.
    std::vector<double> roundRates;
    // The p50 of each run added up here, in nanoseconds, for the same reason.
    std::vector<double> roundP50sNs;

    std::uint64_t calls() const {
        return latenciesNs.size() * static_cast<std::uint64_t>(callsPerSample);
    }

    // Adds another run of the same item: its samples, its wall time and its failures.
    void add(const Run &other) {
        latenciesNs.insert(latenciesNs.end(), other.latenciesNs.begin(), other.latenciesNs.end());
        wallSeconds += other.wallSeconds;
        failures += other.failures;
        callsPerSample = other.callsPerSample;
        if (!other.roundRates.empty()) {
            roundRates.insert(roundRates.end(), other.roundRates.begin(), other.roundRates.end());
            roundP50sNs.insert(roundP50sNs.end(), other.roundP50sNs.begin(),
                               other.roundP50sNs.end());
        } else if (other.wallSeconds > 0) {
            roundRates.push_back(static_cast<double>(other.calls()) / other.wallSeconds);
            std::vector<double> samples = other.latenciesNs;
            roundP50sNs.push_back(percentileNs(samples, 0.5));
        }
    }
};

inline double nowNs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

// Runs `threads` threads that start together; thread t calls op(t) `calls` times, each call
// timed on its own. op returns false for a failed call. The wall time runs from the common
// start to the end of the last thread.
template <typename Op>
Run timeCalls(int threads, int calls, Op &&op) {
    std::vector<std::vector<double>> perThread(static_cast<std::size_t>(threads));
    std::vector<double> starts(perThread.size()), ends(perThread.size());
    std::vector<std::uint64_t> failures(perThread.size());
    std::barrier start(threads);
    auto body = [&](int t) {
        auto &mine = perThread[static_cast<std::size_t>(t)];
        mine.reserve(static_cast<std::size_t>(calls));
        start.arrive_and_wait();
        starts[static_cast<std::size_t>(t)] = nowNs();
        for (int i = 0; i < calls; ++i) {
            const double before = nowNs();
            const bool ok = op(t);
            mine.push_back(nowNs() - before);
            failures[static_cast<std::size_t>(t)] += ok ? 0 : 1;
        }
        ends[static_cast<std::size_t>(t)] = nowNs();
    };
    std::vector<std::jthread> workers;
    for (int t = 1; t < threads; ++t) {
        workers.emplace_back(body, t);
    }
    body(0);
    workers.clear();
    Run run;
    double first = starts[0], last = ends[0];
    for (std::size_t t = 0; t < perThread.size(); ++t) {
        run.latenciesNs.insert(run.latenciesNs.end(), perThread[t].begin(), perThread[t].end());
        first = std::min(first, starts[t]);
        last = std::max(last, ends[t]);
        run.failures += failures[t];
    }
    run.wallSeconds = (last - first) / 1e9;
    return run;
}

// Times `batches` batches of `perBatch` calls of op on this thread; each sample is the mean
// of one batch, for calls too short to time one by one.
template <typename Op>
Run timeBatches(int batches, int perBatch, Op &&op) {
    Run run;
    run.latenciesNs.reserve(static_cast<std::size_t>(batches));
    const double first = nowNs();
    for (int b = 0; b < batches; ++b) {
        const double before = nowNs();
        for (int i = 0; i < perBatch; ++i) {
            op();
        }
        run.latenciesNs.push_back((nowNs() - before) / perBatch);
    }
    run.wallSeconds = (nowNs() - first) / 1e9;
    run.callsPerSample = perBatch;
    return run;
}

}  // namespace xajms::bench
