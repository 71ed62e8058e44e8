// xajms-trace: reads the library's per-process trace files and tells what happened: the
// calls with their durations and results, the transactions by XID across processes, and a
// timeline page. Exit status 0 when every call returned XA_OK, 1 when one did not (or a
// file could not be read, or the transaction asked for is not there), 2 for a bad command
// line.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/xid_notation.h"
#include "input.h"
#include "report.h"
#include "summary.h"
#include "timeline.h"

namespace {

using namespace xajms::trace_tool;

constexpr int kAllOk = 0;
constexpr int kFound = 1;
constexpr int kBadUsage = 2;

constexpr std::string_view kHelp =
    R"(usage: xajms-trace [--json] [--xid F:GTRID:BQUAL] [--html FILE] PATH...

Reads the trace files that the XA switch writes when XAJMS_TRACEFILE is set (one file per
process, prefix + pid + ".trc"). Each PATH is a trace file, a directory (its *.trc files) or
the prefix as XAJMS_TRACEFILE gives it (every prefix<pid>.trc).

It pairs each process's entry and exit lines into calls, with their durations and the XA
code of their "Return code = ..." line, and groups the XA entries by the XID they dump into
transactions across processes, in time order. By default it prints a summary: the calls of
each function with count and p50, p99 and max duration; the results by code; the slowest
calls; and every call that did not return XA_OK, with the steps of its transaction.

  --xid F:GTRID:BQUAL  print one transaction's story instead: each XA entry that carried
                       the XID, its process, its result, how long it took and which
                       listener ports answered what. F is the formatID in decimal; GTRID
                       and BQUAL are text, or 0x and the bytes in hex (e.g. 1:0x0a0b:bq).
  --json               the same as one JSON object, for scripts
  --html FILE          also write a timeline page to FILE: one self-contained HTML file
                       (no network) with a lane per process, a bar per call coloured by
                       its result, and the transactions to choose from
  -h, --help           print this text and exit

Malformed lines (binary junk, a torn last line, lines over 64 KiB) are counted and skipped.
Memory stays bounded whatever the size of the files.

Exit status: 0 when every call with a result returned XA_OK (with --xid: the transaction is
there and all its steps returned XA_OK), 1 when one did not, the transaction is not there,
or a file could not be found or read, 2 for a bad command line.
)";

struct Options {
    bool json = false;
    bool help = false;
    std::optional<std::string> xid;  // normalised to the notation the tool prints
    std::optional<std::string> html;
    std::vector<std::string> paths;
};

// The value of an option given as "--name=value" or "--name value"; advances i for the latter.
std::optional<std::string> value(std::string_view name, int argc, char **argv, int &i) {
    const std::string_view arg = argv[i];
    if (arg.starts_with(name) && arg.size() > name.size() && arg[name.size()] == '=') {
        return std::string(arg.substr(name.size() + 1));
    }
    if (arg == name && i + 1 < argc) {
        return std::string(argv[++i]);
    }
    return std::nullopt;
}

// Parses the arguments after the program name; on a bad one, puts the reason into why.
std::optional<Options> parse(int argc, char **argv, std::string &why) {
    Options o;
    for (int i = 1; i < argc && why.empty(); ++i) {
        const std::string_view arg = argv[i];
        const std::optional<std::string> xid = value("--xid", argc, argv, i);
        const std::optional<std::string> html = xid ? std::nullopt : value("--html", argc, argv, i);
        if (arg == "--json" || arg == "--help" || arg == "-h") {
            (arg == "--json" ? o.json : o.help) = true;
        } else if (xid) {
            const auto parts = xajms::tools::parseXid(*xid, why);
            why = parts ? "" : "--xid: " + why + ", got '" + *xid + "'";
            o.xid = parts ? std::optional(xajms::tools::formatXid(*parts)) : std::nullopt;
        } else if (html) {
            o.html = *html;
            why = html->empty() ? "--html: empty file name" : "";
        } else if (arg == "--xid" || arg == "--html") {
            why = std::string(arg) + ": missing value";
        } else if (arg.starts_with("-") && arg != "-") {
            why = "unexpected argument '" + std::string(arg) + "' (see --help)";
        } else {
            o.paths.emplace_back(arg);
        }
    }
    if (why.empty() && o.paths.empty() && !o.help) {
        why = "no trace file given (see --help)";
    }
    return why.empty() ? std::optional<Options>(o) : std::nullopt;
}

bool writeFile(const std::string &path, const std::string &text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    return static_cast<bool>(out);
}

// 0 when every step of the story, or every call, returned XA_OK; else 1.
int outcome(const Summary &summary, const Options &options, bool allRead) {
    if (!allRead) {
        return kFound;
    }
    if (!options.xid) {
        return summary.failuresTotal() == 0 ? kAllOk : kFound;
    }
    const std::vector<Call> steps = summary.story(*options.xid);
    bool ok = !steps.empty();
    for (const Call &step : steps) {
        ok = ok && (!step.result || *step.result == 0);
    }
    return ok ? kAllOk : kFound;
}

}  // namespace

int main(int argc, char **argv) {
    std::string why;
    const std::optional<Options> options = parse(argc, argv, why);
    if (!options) {
        std::fprintf(stderr, "xajms-trace: %s\n", why.c_str());
        return kBadUsage;
    }
    if (options->help) {
        std::fwrite(kHelp.data(), 1, kHelp.size(), stdout);
        return kAllOk;
    }
    std::vector<std::string> files;
    bool allRead = true;
    for (const std::string &path : options->paths) {
        const std::vector<std::string> found = traceFiles(path, why);
        if (found.empty()) {
            std::fprintf(stderr, "xajms-trace: %s\n", why.c_str());
            allRead = false;
        }
        files.insert(files.end(), found.begin(), found.end());
    }
    std::sort(files.begin(), files.end());  // a file named twice is read once
    files.erase(std::unique(files.begin(), files.end()), files.end());
    Summary summary;
    summary.keepTimeline = options->html.has_value();
    summary.onlyXid = options->html ? std::nullopt : options->xid;
    if (!readTraces(files, summary, why)) {
        std::fprintf(stderr, "xajms-trace: %s\n", why.c_str());
        allRead = false;
    }
    if (options->html && !writeFile(*options->html, timelinePage(summary))) {
        std::fprintf(stderr, "xajms-trace: %s: cannot write the page\n", options->html->c_str());
        allRead = false;
    }
    const std::string text = options->xid
                                 ? (options->json ? storyJson(summary, *options->xid)
                                                  : storyText(summary, *options->xid))
                                 : (options->json ? summaryJson(summary) : summaryText(summary));
    std::fwrite(text.data(), 1, text.size(), stdout);
    return outcome(summary, *options, allRead);
}
