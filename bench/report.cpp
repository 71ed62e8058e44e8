// The table, the JSON file and the plot data of a run, and the goals measured on it.
#include "report.h"

#include <cstdio>
#include <fstream>

namespace xajms::bench {

namespace {

// The recover reply whose system calls the strace runs count.
constexpr int kSyscallRecoverXids = 1000;

double ratio(double a, double b) {
    return b > 0 ? a / b : 0;
}

const Row *limitOf(const Report &report, const Row &row) {
    return row.limit >= 0 ? &report.rows[static_cast<std::size_t>(row.limit)] : nullptr;
}

// Formats a number for the table: microseconds under 10 with more places.
std::string micros(double us) {
    char text[32];
    const int places = us < 0.1 ? 4 : (us < 10 ? 3 : 1);
    std::snprintf(text, sizeof text, "%.*f", places, us);
    return text;
}

// The label of a child mode in the system call lines.
const char *modeLabel(const std::string &mode) {
    if (mode == "raw") {
        return "raw round trip";
    }
    if (mode == "commit") {
        return "xa_commit_entry_jms";
    }
    return mode == "rawrecover" ? "raw recover transfer" : "xa_recover_entry_jms";
}

double callsOf(const std::map<std::string, double> &m, const char *name) {
    const auto it = m.find(name);
    return it == m.end() ? 0.0 : it->second;
}

void printSyscalls(const SyscallReport &s) {
    std::printf(
        "\nsystem calls per operation (strace -c, difference of two runs, %d operations;"
        " recover with %d XIDs):\n",
        s.operations, kSyscallRecoverXids);
    for (const char *mode : {"raw", "commit", "rawrecover", "recover"}) {
        const auto side = s.byMode.find(mode);
        if (side == s.byMode.end()) {
            continue;
        }
        std::printf("  %-22s total %6.2f  connects per 10,000 %5.1f ", modeLabel(mode),
                    callsOf(side->second, "total"), callsOf(side->second, "connect") * 10000);
        for (const auto &[name, calls] : side->second) {
            if (name != "total" && calls >= 0.005) {
                std::printf(" %s %.2f", name.c_str(), calls);
            }
        }
        std::printf("\n");
    }
}

void jsonRow(std::ofstream &out, const Report &report, const Row &row, bool last) {
    const Row *limit = limitOf(report, row);
    const Summary &s = row.summary;
    out << "    {\"key\": \"" << row.key << "\", \"label\": \"" << row.label
        << "\", \"threads\": " << row.threads << ", \"calls\": " << s.calls
        << ", \"failures\": " << row.failures << ", \"p50_us\": " << s.p50Us
        << ", \"p99_us\": " << s.p99Us << ", \"calls_per_second\": " << s.callsPerSecond;
    if (limit != nullptr) {
        out << ", \"limit\": \"" << limit->key
            << "\", \"p50_ratio\": " << ratio(s.p50Us, limit->summary.p50Us)
            << ", \"p99_ratio\": " << ratio(s.p99Us, limit->summary.p99Us)
            << ", \"rate_ratio\": " << ratio(s.callsPerSecond, limit->summary.callsPerSecond);
    }
    if (row.connectsPer10k) {
        out << ", \"connects_per_10000\": " << *row.connectsPer10k;
    }
    out << "}" << (last ? "\n" : ",\n");
}

void jsonCounts(std::ofstream &out, const char *name, const std::map<std::string, double> &m,
                bool last) {
    out << "    \"" << name << "\": {";
    bool first = true;
    for (const auto &[call, n] : m) {
        out << (first ? "" : ", ") << "\"" << call << "\": " << n;
        first = false;
    }
    out << "}" << (last ? "\n" : ",\n");
}

}  // namespace

const Row *findRow(const Report &report, const std::string &key) {
    for (const Row &row : report.rows) {
        if (row.key == key) {
            return &row;
        }
    }
    return nullptr;
}

std::vector<Goal> goals(const Report &r) {
    std::vector<Goal> out;
    const Row *commit1 = findRow(r, "commit.1");
    const Row *raw1 = findRow(r, "raw.1");
    if (commit1 != nullptr && raw1 != nullptr) {
        out.push_back({"p50 of a single-thread commit / raw round trip",
                       ratio(commit1->summary.p50Us, raw1->summary.p50Us), 1.10, true});
    }
    if (commit1 != nullptr && commit1->connectsPer10k) {
        out.push_back(
            {"connects per 10,000 steady-state commits", *commit1->connectsPer10k, 0, true});
    }
    const Row *commit4 = findRow(r, "commit.4");
    const Row *raw4 = findRow(r, "raw.4");
    if (commit4 != nullptr && raw4 != nullptr) {
        out.push_back({"calls/s of 4 commit threads / 4 raw sockets",
                       ratio(commit4->summary.callsPerSecond, raw4->summary.callsPerSecond), 0.9,
                       false});
    }
    const Row *rec = findRow(r, "recover.1000");
    const Row *rawRec = findRow(r, "rawrecover.1000");
    if (rec != nullptr && rawRec != nullptr) {
        out.push_back({"p50 of recover of 1,000 XIDs / raw transfer",
                       ratio(rec->summary.p50Us, rawRec->summary.p50Us), 1.5, true});
    }
    return out;
}

void printReport(const Report &r) {
    std::printf("\n%-40s %9s %9s %12s %8s %8s %8s %9s\n", "item", "p50 us", "p99 us", "calls/s",
                "p50 x", "p99 x", "rate x", "conn/10k");
    for (const Row &row : r.rows) {
        const Row *limit = limitOf(r, row);
        const Summary &s = row.summary;
        std::printf("%-40s %9s %9s %12.0f", row.label.c_str(), micros(s.p50Us).c_str(),
                    micros(s.p99Us).c_str(), s.callsPerSecond);
        if (limit != nullptr) {
            std::printf(" %8.3f %8.3f %8.3f", ratio(s.p50Us, limit->summary.p50Us),
                        ratio(s.p99Us, limit->summary.p99Us),
                        ratio(s.callsPerSecond, limit->summary.callsPerSecond));
        } else {
            std::printf(" %8s %8s %8s", "limit", "", "");
        }
        if (row.connectsPer10k) {
            std::printf(" %9.1f", *row.connectsPer10k);
        }
        std::printf(row.failures > 0 ? "  (%llu failed)\n" : "\n",
                    static_cast<unsigned long long>(row.failures));
    }
    if (r.syscalls) {
        printSyscalls(*r.syscalls);
    }
    std::printf(
        "\nnoise: p50 of the raw round trip by round %s .. %s us over %d rounds; "
        "load average %.2f before, %.2f after\n",
        micros(r.roundP50MinUs).c_str(), micros(r.roundP50MaxUs).c_str(), r.rounds,
        r.machine.loadBefore, r.machine.loadAfter);
    // A smoke run makes too few calls for a ratio to mean anything: its goals are shown
    // with their values but not judged, so that no "MISSED" reaches a log that judges nothing.
    std::printf("\ngoals%s:\n", r.smoke ? " (not judged in a smoke run: too few calls)" : "");
    for (const Goal &g : goals(r)) {
        const char *verdict = r.smoke ? "not judged" : g.met() ? "met" : "MISSED";
        std::printf("  %-50s %8.3f  %s %.2f  %s\n", g.text.c_str(), g.measured,
                    g.atMost ? "<=" : ">=", g.bound, verdict);
    }
}

bool writeJson(const Report &r, const std::string &path) {
    std::ofstream out(path);
    out << "{\n  \"smoke\": " << (r.smoke ? "true" : "false") << ",\n  \"machine\": {\"cpu\": \""
        << r.machine.cpu << "\", \"cores\": " << r.machine.cores << ", \"kernel\": \""
        << r.machine.kernel << "\", \"load_before\": " << r.machine.loadBefore
        << ", \"load_after\": " << r.machine.loadAfter << "},\n";
    out << "  \"noise\": {\"rounds\": " << r.rounds
        << ", \"raw_round_p50_min_us\": " << r.roundP50MinUs
        << ", \"raw_round_p50_max_us\": " << r.roundP50MaxUs << "},\n";
    out << "  \"rows\": [\n";
    for (std::size_t i = 0; i < r.rows.size(); ++i) {
        jsonRow(out, r, r.rows[i], i + 1 == r.rows.size());
    }
    out << "  ],\n";
    if (r.syscalls) {
        out << "  \"syscalls_per_operation\": {\n    \"operations\": " << r.syscalls->operations
            << ",\n";
        std::size_t left = r.syscalls->byMode.size();
        for (const auto &[mode, counts] : r.syscalls->byMode) {
            jsonCounts(out, mode.c_str(), counts, --left == 0);
        }
        out << "  },\n";
    }
    out << "  \"goals\": [\n";
    const auto g = goals(r);
    for (std::size_t i = 0; i < g.size(); ++i) {
        const char *met = r.smoke ? "null" : g[i].met() ? "true" : "false";  // smoke: unjudged
        out << "    {\"goal\": \"" << g[i].text << "\", \"measured\": " << g[i].measured
            << ", \"bound\": " << g[i].bound
            << ", \"at_most\": " << (g[i].atMost ? "true" : "false") << ", \"met\": " << met << "}"
            << (i + 1 == g.size() ? "\n" : ",\n");
    }
    out << "  ]\n}\n";
    return static_cast<bool>(out);
}

bool writePlotData(const Report &r, const std::string &path) {
    std::ofstream out(path);
    out << "# threads raw_p50_us raw_p99_us commit_p50_us commit_p99_us\n";
    for (int t : {1, 2, 4, 8}) {
        const Row *raw = findRow(r, "raw." + std::to_string(t));
        const Row *commit = findRow(r, "commit." + std::to_string(t));
        if (raw != nullptr && commit != nullptr) {
            out << t << " " << raw->summary.p50Us << " " << raw->summary.p99Us << " "
                << commit->summary.p50Us << " " << commit->summary.p99Us << "\n";
        }
    }
    return static_cast<bool>(out);
}

}  // namespace xajms::bench
