// Threads take unit numbers from one counter, so that --crash-after names one unit of the whole
// run. The first failure stops every thread after its current unit; the others' units are
// finished or rolled back by their own threads, never abandoned halfway.
#include "run.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

namespace xajms::eg_host {

namespace {

using Clock = std::chrono::steady_clock;

struct Shared {
    std::atomic<long> next{1};
    std::atomic<long> moved{0};
    std::atomic<bool> stop{false};
    std::mutex m;
    std::condition_variable done;
    int running = 0;
    std::string failure;
};

void worker(const Host &host, long messages, Shared &s) {
    while (!s.stop) {
        const long n = s.next++;
        if (messages >= 0 && n > messages) {
            break;
        }
        std::string why;
        const UnitEnd end = runUnit(host, n, why);
        if (end == UnitEnd::moved) {
            ++s.moved;
            continue;
        }
        if (end == UnitEnd::failed) {
            const std::lock_guard<std::mutex> hold(s.m);
            if (s.failure.empty()) {
                s.failure = why;
            }
            s.stop = true;
        }
        break;
    }
    const std::lock_guard<std::mutex> hold(s.m);
    --s.running;
    s.done.notify_all();
}

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

}  // namespace

RunResult runUnits(const Host &host, long messages, int threads, bool progress) {
    Shared s;
    s.running = threads;
    const Clock::time_point begin = Clock::now();
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back(worker, std::cref(host), messages, std::ref(s));
    }
    {
        std::unique_lock<std::mutex> lock(s.m);
        while (!s.done.wait_for(lock, std::chrono::seconds(1), [&] { return s.running == 0; })) {
            if (progress) {
                const long moved = s.moved;
                std::printf("progress: %ld moved, %.0f per second\n", moved,
                            moved / secondsSince(begin));
                std::fflush(stdout);
            }
        }
    }
    for (std::thread &t : pool) {
        t.join();
    }
    return {s.moved, secondsSince(begin), s.failure};
}

}  // namespace xajms::eg_host
