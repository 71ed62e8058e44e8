// xajms-bench-pg: a two-resource transaction through the switch and the PostgreSQL execution
// group against the same SQL sent directly through libpq (PREPARE TRANSACTION, COMMIT
// PREPARED), on one throwaway cluster (scripts/pg-fixture gives it in XAJMS_PG_DIR), at 1 and
// 4 threads with fsync off, and at 1 thread with fsync on; beside them, the direct SQL plus the
// four listener round trips that the switch's prepares and commits make, the least that a
// transaction through the listener protocol can cost. Prints the table and writes JSON.
#include <xajms/xajms.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "stats.h"
#include "support/orlom.h"
#include "transactions.h"

namespace {

using namespace xajms;
using Clock = std::chrono::steady_clock;

struct Measured {
    std::vector<double> ns, roundP50s, roundRates;
    std::uint64_t calls = 0, failures = 0;
};

struct Pair {
    PGconn *a = nullptr, *b = nullptr;
};

std::string conninfo(const std::string &db) {
    return "host=" + std::string(std::getenv("XAJMS_PG_DIR")) + " user=postgres dbname=" + db;
}

bool exec(PGconn *pg, const std::string &sql) {
    PGresult *r = PQexec(pg, sql.c_str());
    const bool ok = PQresultStatus(r) == PGRES_COMMAND_OK || PQresultStatus(r) == PGRES_TUPLES_OK;
    if (!ok) {
        std::fprintf(stderr, "xajms-bench-pg: %s: %s", sql.c_str(), PQerrorMessage(pg));
    }
    PQclear(r);
    return ok;
}

// Runs calls transactions split over threads; each thread times each of its own.
void timeRound(int threads, int calls, const std::function<bool(int, long)> &one, Measured &m,
               long &next) {
    std::vector<std::vector<double>> ns(static_cast<std::size_t>(threads));
    std::vector<std::uint64_t> failed(static_cast<std::size_t>(threads), 0);
    const long base = next;
    next += calls;
    const Clock::time_point begin = Clock::now();
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            for (long i = t; i < calls; i += threads) {
                const Clock::time_point s = Clock::now();
                failed[static_cast<std::size_t>(t)] += one(t, base + i) ? 0 : 1;
                ns[static_cast<std::size_t>(t)].push_back(
                    std::chrono::duration<double, std::nano>(Clock::now() - s).count());
            }
        });
    }
    for (std::thread &t : pool) {
        t.join();
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    std::vector<double> round;
    for (std::size_t t = 0; t < ns.size(); ++t) {
        round.insert(round.end(), ns[t].begin(), ns[t].end());
        m.failures += failed[t];
    }
    m.ns.insert(m.ns.end(), round.begin(), round.end());
    m.roundP50s.push_back(bench::percentileNs(round, 0.5));
    m.roundRates.push_back(calls / seconds);
    m.calls += static_cast<std::uint64_t>(calls);
}

struct Row {
    std::string label;
    int threads;
    bool fsync;
    bench::Summary direct, hops, viaSwitch;
    std::uint64_t failures;
};

Row measure(xa_switch_t *sw, std::vector<Pair> &pairs, int threads, bool fsync, int rounds,
            int calls) {
    Measured direct, hops, viaSwitch;
    long next = 1;
    const auto directOne = [&](int t, long n) {
        return bench_pg::directTransaction(pairs[static_cast<std::size_t>(t)].a,
                                           pairs[static_cast<std::size_t>(t)].b, t, n, nullptr);
    };
    const auto hopsOne = [&](int t, long n) {
        return bench_pg::directTransaction(pairs[static_cast<std::size_t>(t)].a,
                                           pairs[static_cast<std::size_t>(t)].b, t, n, sw);
    };
    const auto switchOne = [&](int t, long n) { return bench_pg::switchTransaction(sw, t, n); };
    Measured warm;
    timeRound(threads, 50, directOne, warm, next);
    timeRound(threads, 50, switchOne, warm, next);
    for (int r = 0; r < rounds; ++r) {
        // The order rotates so that a slow spell of the machine falls on all three alike.
        const std::function<void()> runs[] = {
            [&] { timeRound(threads, calls, directOne, direct, next); },
            [&] { timeRound(threads, calls, switchOne, viaSwitch, next); },
            [&] { timeRound(threads, calls, hopsOne, hops, next); },
        };
        for (int i = 0; i < 3; ++i) {
            runs[(r + i) % 3]();
        }
    }
    return {
        "",
        threads,
        fsync,
        bench::summarize(direct.ns, direct.roundP50s, direct.roundRates, direct.calls),
        bench::summarize(hops.ns, hops.roundP50s, hops.roundRates, hops.calls),
        bench::summarize(viaSwitch.ns, viaSwitch.roundP50s, viaSwitch.roundRates, viaSwitch.calls),
        direct.failures + hops.failures + viaSwitch.failures + warm.failures};
}

void print(const std::vector<Row> &rows, const std::string &json) {
    std::printf("%-56s %8s %8s %9s   %7s %7s %7s\n", "two-resource transaction", "p50 us", "p99 us",
                "tx/s", "p50 x", "p99 x", "tx/s x");
    std::ofstream out(json);
    out << "{\n  \"rows\": [\n";
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const Row &r = rows[i];
        const std::string setting = std::to_string(r.threads) + " thread" +
                                    (r.threads == 1 ? "" : "s") + ", fsync " +
                                    (r.fsync ? "on" : "off");
        const double p50 = r.viaSwitch.p50Us / r.direct.p50Us,
                     p99 = r.viaSwitch.p99Us / r.direct.p99Us,
                     rate = r.viaSwitch.callsPerSecond / r.direct.callsPerSecond;
        std::printf("%-56s %8.1f %8.1f %9.0f\n", ("libpq direct, " + setting).c_str(),
                    r.direct.p50Us, r.direct.p99Us, r.direct.callsPerSecond);
        std::printf("%-56s %8.1f %8.1f %9.0f   %7.3f %7.3f %7.3f\n",
                    ("libpq direct + 4 listener requests, " + setting).c_str(), r.hops.p50Us,
                    r.hops.p99Us, r.hops.callsPerSecond, r.hops.p50Us / r.direct.p50Us,
                    r.hops.p99Us / r.direct.p99Us, r.hops.callsPerSecond / r.direct.callsPerSecond);
        std::printf("%-56s %8.1f %8.1f %9.0f   %7.3f %7.3f %7.3f%s\n",
                    ("through the switch, " + setting).c_str(), r.viaSwitch.p50Us,
                    r.viaSwitch.p99Us, r.viaSwitch.callsPerSecond, p50, p99, rate,
                    r.failures > 0 ? "  FAILURES" : "");
        char line[768];
        std::snprintf(
            line, sizeof line,
            "    {\"threads\": %d, \"fsync\": %s, \"direct\": {\"p50_us\": %.2f, "
            "\"p99_us\": %.2f, \"tx_per_s\": %.0f}, \"direct_with_listener_requests\": {\"p50_us\": "
            "%.2f, \"p99_us\": %.2f, \"tx_per_s\": %.0f}, \"switch\": {\"p50_us\": %.2f, "
            "\"p99_us\": %.2f, \"tx_per_s\": %.0f}, \"p50_ratio\": %.3f, "
            "\"p99_ratio\": %.3f, \"tx_ratio\": %.3f, \"failures\": %llu}%s\n",
            r.threads, r.fsync ? "true" : "false", r.direct.p50Us, r.direct.p99Us,
            r.direct.callsPerSecond, r.hops.p50Us, r.hops.p99Us, r.hops.callsPerSecond,
            r.viaSwitch.p50Us, r.viaSwitch.p99Us, r.viaSwitch.callsPerSecond, p50, p99, rate,
            static_cast<unsigned long long>(r.failures), i + 1 < rows.size() ? "," : "");
        out << line;
    }
    out << "  ]\n}\n";
}

}  // namespace

int main(int argc, char **argv) {
    const std::string json = argc > 1 ? argv[1] : "bench-pg.json";
    const bool smoke = argc > 2 && std::string(argv[2]) == "--smoke";
    if (std::getenv("XAJMS_PG_DIR") == nullptr) {
        std::fprintf(stderr, "xajms-bench-pg: run it under scripts/pg-fixture run\n");
        return 2;
    }
    if (const std::string why = test::enterPrivateOrlom(); !why.empty()) {
        std::fprintf(stderr, "xajms-bench-pg: %s\n", why.c_str());
        return 1;
    }
    PGconn *admin = PQconnectdb(conninfo("postgres").c_str());
    for (const char *db : {"bench_a", "bench_b"}) {
        exec(admin, std::string("CREATE DATABASE ") + db);
        PGconn *pg = PQconnectdb(conninfo(db).c_str());
        exec(pg, "CREATE TABLE work (n int)");
        PQfinish(pg);
    }
    ZJavaInitSwitchJMS();
    xa_switch_t *sw = OrloStart();
    std::string open1 = "eg=BENCH conninfo='" + conninfo("bench_a") + "'";
    std::string open2 = "eg=BENCH conninfo='" + conninfo("bench_b") + "'";
    if (sw->xa_open_entry(open1.data(), 1, TMNOFLAGS) != XA_OK ||
        sw->xa_open_entry(open2.data(), 2, TMNOFLAGS) != XA_OK) {
        std::fprintf(stderr, "xajms-bench-pg: xa_open failed\n");
        return 1;
    }
    std::vector<Pair> pairs(4);
    for (Pair &p : pairs) {
        p.a = PQconnectdb(conninfo("bench_a").c_str());
        p.b = PQconnectdb(conninfo("bench_b").c_str());
    }
    const int rounds = smoke ? 2 : 10, calls = smoke ? 50 : 1000;
    std::vector<Row> rows;
    rows.push_back(measure(sw, pairs, 1, false, rounds, calls));
    rows.push_back(measure(sw, pairs, 4, false, rounds, calls));
    exec(admin, "ALTER SYSTEM SET fsync = on");
    exec(admin, "ALTER SYSTEM SET synchronous_commit = on");
    exec(admin, "ALTER SYSTEM SET full_page_writes = on");
    exec(admin, "SELECT pg_reload_conf()");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    rows.push_back(measure(sw, pairs, 1, true, smoke ? 2 : 4, smoke ? 10 : 50));
    print(rows, json);
    for (const Row &r : rows) {
        if (r.failures > 0) {
            return 1;
        }
    }
    return 0;
}
