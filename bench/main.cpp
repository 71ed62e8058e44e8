// xajms-bench: measures the commit and recover paths of the library against xajms-listener
// on loopback, beside the raw socket transfer of the same bytes, in a private /var/orlom,
// and prints the table, writes it as JSON and writes the data of the thread-count plot.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <functional>
#include <string>

#include "listener.h"
#include "measure.h"
#include "registry/registry.h"
#include "report.h"
#include "support/orlom.h"
#include "syscalls.h"
#include "workloads.h"

namespace {

using namespace xajms::bench;

struct Config {
    int rounds = 20;             // the measurements of an item alternate this many times
    int commitsPerRound = 1000;  // per thread count, shared among its threads
    int recoversPerRound = 100;
    int traceBatches = 250;  // per round, of traceCallsPerBatch calls
    int traceCallsPerBatch = 1000;
    int syscallOps = 2000;
    bool smoke = false;
    bool syscalls = true;
    std::string json = "bench/results/latest.json";
    std::string plotData;
};

constexpr int kWarmUp = 50;

// Adds a limit row and the row measured against it.
void addPair(Report &report, Row limit, Row measured) {
    report.rows.push_back(std::move(limit));
    measured.limit = static_cast<int>(report.rows.size()) - 1;
    report.rows.push_back(std::move(measured));
}

Row rowOf(std::string key, std::string label, int threads, const Run &run) {
    Row row;
    row.key = std::move(key);
    row.label = std::move(label);
    row.threads = threads;
    row.summary = summarize(run.latenciesNs, run.roundP50sNs, run.roundRates, run.calls());
    row.failures = run.failures;
    return row;
}

double per10k(std::uint64_t connects, std::uint64_t calls) {
    return calls == 0 ? 0 : static_cast<double>(connects) * 10000.0 / static_cast<double>(calls);
}

// Runs each measurement once a round, the order rotating every round so that a slow spell
// of the machine falls on all of them alike.
void alternate(int rounds, const std::vector<std::function<void()>> &runs) {
    const std::size_t n = runs.size();
    for (int r = 0; r < rounds; ++r) {
        for (std::size_t i = 0; i < n; ++i) {
            runs[(static_cast<std::size_t>(r) + i) % n]();
        }
    }
}

// Adds a run of the library to total and the connects it made to connects.
template <typename Op>
void libraryRun(int threads, int calls, Op &&op, Run &total, std::uint64_t &connects) {
    const std::uint64_t before = connectsSoFar();
    total.add(timeCalls(threads, calls, op));
    connects += connectsSoFar() - before;
}

void measureThreads(const Config &c, int port, int threads, Report &report) {
    std::vector<RawSocket> sockets;
    for (int t = 0; t < threads; ++t) {
        sockets.emplace_back(port);
    }
    RawSocket polledSocket(port);
    const auto request = commitRequest(commitXid());
    std::vector<XID> xids(static_cast<std::size_t>(threads), commitXid());
    auto raw = [&](int t) {
        return rawRoundTrip(sockets[static_cast<std::size_t>(t)].fd(), request);
    };
    auto polled = [&](int) { return polledRoundTrip(polledSocket.fd(), request); };
    auto lib = [&](int t) { return libraryCommit(xids[static_cast<std::size_t>(t)]); };
    timeCalls(threads, kWarmUp, raw);
    timeCalls(threads, kWarmUp, lib);
    const int calls = std::max(1, c.commitsPerRound / threads);
    Run rawRun, libRun, polledRun;
    std::uint64_t connects = 0;
    std::vector<double> roundP50s;
    std::vector<std::function<void()>> runs{
        [&] {
            Run run = timeCalls(threads, calls, raw);
            roundP50s.push_back(percentileNs(run.latenciesNs, 0.5) / 1000);
            rawRun.add(run);
        },
        [&] { libraryRun(threads, calls, lib, libRun, connects); }};
    if (threads == 1) {
        runs.emplace_back([&] { polledRun.add(timeCalls(1, calls, polled)); });
    }
    alternate(c.rounds, runs);
    const std::string n = std::to_string(threads);
    Row commit = rowOf("commit." + n, "xa_commit_entry_jms, " + n + " thread(s)", threads, libRun);
    commit.connectsPer10k = per10k(connects, libRun.calls());
    addPair(report, rowOf("raw." + n, "raw round trip, " + n + " socket(s)", threads, rawRun),
            std::move(commit));
    if (threads == 1) {
        report.roundP50MinUs = *std::min_element(roundP50s.begin(), roundP50s.end());
        report.roundP50MaxUs = *std::max_element(roundP50s.begin(), roundP50s.end());
        Row polledRow = rowOf("rawpoll.1", "raw round trip, poll before recv", 0, polledRun);
        polledRow.limit = static_cast<int>(report.rows.size()) - 2;
        report.rows.push_back(std::move(polledRow));
    }
}

// Counts the system calls of the raw and the library side of one item under strace, unless
// the run is a smoke run or strace cannot be had.
void measureSyscalls(const Config &c, int port, const std::vector<std::string> &modes,
                     Report &report) {
    if (!c.syscalls) {
        return;
    }
    if (!straceAvailable()) {
        std::printf("system calls: not counted (no strace)\n");
        return;
    }
    const int shortOps = c.syscallOps / 10;
    const int longOps = shortOps + c.syscallOps;
    if (!report.syscalls) {
        report.syscalls = SyscallReport{{}, c.syscallOps};
    }
    for (const std::string &mode : modes) {
        const auto a = countSyscalls(mode, port, shortOps);
        const auto b = countSyscalls(mode, port, longOps);
        if (!a || !b) {
            std::printf("system calls: the strace run of the %s child failed\n", mode.c_str());
            continue;
        }
        report.syscalls->byMode[mode] = perOperation(*a, shortOps, *b, longOps);
    }
}

// Recover against a listener of its own that answers n XIDs and is registered as pending,
// so that recover asks it alone.
void measureRecover(const Config &c, int n, Report &report) {
    Listener listener(recoverListenerArgs(n));
    RawSocket socket(listener.port());
    const auto request = recoverRequest();
    const std::size_t expected = recoverReplySize(n);
    std::vector<unsigned char> reply(expected);
    std::vector<XID> xids(kRecoveredXids);
    auto raw = [&](int) { return rawRecover(socket.fd(), request, reply, expected); };
    auto lib = [&](int) { return libraryRecover(xids, n); };
    timeCalls(1, kWarmUp / 5, raw);
    timeCalls(1, kWarmUp / 5, lib);
    Run rawRun, libRun;
    std::uint64_t connects = 0;
    alternate(c.rounds, {[&] { rawRun.add(timeCalls(1, c.recoversPerRound, raw)); },
                         [&] { libraryRun(1, c.recoversPerRound, lib, libRun, connects); }});
    if (n == kRecoveredXids) {
        measureSyscalls(c, listener.port(), {"rawrecover", "recover"}, report);
    }
    const std::string count = std::to_string(n);
    Row recover =
        rowOf("recover." + count, "xa_recover_entry_jms, " + count + " XID(s)", 0, libRun);
    recover.connectsPer10k = per10k(connects, libRun.calls());
    addPair(report,
            rowOf("rawrecover." + count, "raw recover transfer, " + count + " XID(s)", 0, rawRun),
            std::move(recover));
}

void measureTrace(const Config &c, Report &report) {
    Run emptyRun, traceRun;
    alternate(
        c.rounds,
        {[&] { emptyRun.add(timeBatches(c.traceBatches, c.traceCallsPerBatch, emptyCall)); },
         [&] { traceRun.add(timeBatches(c.traceBatches, c.traceCallsPerBatch, traceOffCall)); }});
    addPair(report, rowOf("empty", "empty call of the same shape", 0, emptyRun),
            rowOf("trace", "traceJMSData, tracing off", 0, traceRun));
}

Machine machine() {
    Machine m;
    m.cores = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
    std::ifstream cpuinfo("/proc/cpuinfo");
    std::string line;
    while (std::getline(cpuinfo, line)) {
        if (line.starts_with("model name")) {
            m.cpu = line.substr(line.find(':') + 2);
            break;
        }
    }
    utsname u{};
    if (uname(&u) == 0) {
        m.kernel = std::string(u.sysname) + " " + u.release;
    }
    getloadavg(&m.loadBefore, 1);
    return m;
}

void usage() {
    std::fprintf(stderr,
                 "usage: xajms-bench [--smoke] [--json FILE] [--plot-data FILE] [--no-syscalls]\n");
}

// Reads the command line into c. False on anything it does not know.
bool parse(int argc, char **argv, Config &c) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool hasValue = i + 1 < argc;
        if (a == "--smoke") {
            c.smoke = true;
            c.syscalls = false;
            c.rounds = 2;
            c.commitsPerRound = 100;
            c.recoversPerRound = 20;
            c.traceBatches = 50;
        } else if (a == "--no-syscalls") {
            c.syscalls = false;
        } else if (a == "--json" && hasValue) {
            c.json = argv[++i];
        } else if (a == "--plot-data" && hasValue) {
            c.plotData = argv[++i];
        } else {
            return false;
        }
    }
    return true;
}

// Creates the private registry file, zeroed for the first listener to format, and names it in
// XAJMS_SANDBOX as xajms-sandbox does: the listeners then do not warn that the benchmark's
// own processes use it.
void markPrivateRegistry() {
    const int fd = open(xajms::registry::kPath, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    struct stat file {};
    if (fd >= 0 && ftruncate(fd, xajms::registry::kFileSize) == 0 && fstat(fd, &file) == 0) {
        setenv("XAJMS_SANDBOX",
               (std::to_string(file.st_dev) + ":" + std::to_string(file.st_ino)).c_str(), 1);
    }
    if (fd >= 0) {
        close(fd);
    }
}

int run(const Config &c) {
    // Tracing stays off: the pool takes the socket trace prefix from the environment.
    unsetenv("XAJMS_TRACEFILE");
    const std::string why = xajms::test::enterPrivateOrlom();
    if (!why.empty()) {
        // A smoke run is a check of the build: where the registry cannot be made private it
        // says so and stands aside, as the tests that need it skip. A measurement fails.
        std::fprintf(stderr, "xajms-bench: %s%s\n", c.smoke ? "smoke run skipped: " : "",
                     why.c_str());
        return c.smoke ? 0 : 1;
    }
    markPrivateRegistry();
    Report report;
    report.machine = machine();
    report.rounds = c.rounds;
    report.smoke = c.smoke;
    {
        Listener listener({"--quiet", "--name", "bench-broker"});
        for (int threads : {1, 2, 4, 8}) {
            measureThreads(c, listener.port(), threads, report);
        }
        measureSyscalls(c, listener.port(), {"raw", "commit"}, report);
        for (int n : {1, 100, kRecoveredXids}) {
            measureRecover(c, n, report);
        }
    }
    measureTrace(c, report);
    getloadavg(&report.machine.loadAfter, 1);
    printReport(report);
    if (!writeJson(report, c.json)) {
        std::fprintf(stderr, "xajms-bench: cannot write %s\n", c.json.c_str());
        return 1;
    }
    if (!c.plotData.empty() && !writePlotData(report, c.plotData)) {
        std::fprintf(stderr, "xajms-bench: cannot write %s\n", c.plotData.c_str());
        return 1;
    }
    // A call that failed means the path measured is not the one meant: the numbers are void.
    for (const Row &row : report.rows) {
        if (row.failures > 0) {
            std::fprintf(stderr, "xajms-bench: %s failed %llu times\n", row.label.c_str(),
                         static_cast<unsigned long long>(row.failures));
            return 1;
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc == 5 && std::string(argv[1]) == "--syscall-child") {
        return runSyscallChild(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
    }
    Config c;
    if (!parse(argc, argv, c)) {
        usage();
        return 2;
    }
    try {
        return run(c);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "xajms-bench: %s\n", e.what());
        return 1;
    }
}
