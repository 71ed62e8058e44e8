// xajms-registry: shows the registry file as a table or as JSON, asks its listeners for the
// XIDs they hold in doubt, or clears it through the library. Exit status 0 when shown,
// answered or cleared, 1 when the file is absent, unreadable or not formatted or a listener
// did not answer, 2 for a bad command line.
#include <xajms/xajms.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "common/registry_snapshot.h"
#include "common/shared_file.h"
#include "in_doubt.h"
#include "registry/registry.h"
#include "show.h"

namespace {

constexpr int kDone = 0;
constexpr int kNoRegistry = 1;  // also: a listener did not answer
constexpr int kBadUsage = 2;
constexpr int kDefaultWaitMs = 5000;

constexpr std::string_view kHelp =
    R"(usage: xajms-registry [--json] [--file PATH]
       xajms-registry --in-doubt [--wait S] [--json] [--file PATH]
       xajms-registry --clear

Shows the registry file in which execution groups register their XA listener ports: for
each row the execution group name, the port, the pid and whether that process is alive,
and the mode (empty, start-up recovery, broker, dead, pending), with the row count. Rows
at or beyond the row count are shown when they are in use, marked with '*'.

  --json        one JSON object instead of the table, for scripts
  --file PATH   read this file instead of /var/orlom/XA_SWITCH_MMF (read only)
  --in-doubt    ask the listener of every row in use (mode not empty) that names a
                port, one after another, with one recover request each (rmid 1,
                TMSTARTRSCAN|TMENDRSCAN) over 127.0.0.1, for the XIDs it holds in
                doubt, and show them below its row as F:GTRID:BQUAL, the notation
                xajms-drive --xid takes; or say that it did not answer in time, could
                not be reached (its process gone, its port closed), or sent a reply
                that is no recover reply. Nothing is resolved.
  --wait S      with --in-doubt: seconds to wait for each listener, from connecting
                to the last byte of its reply (decimal, above 0, at most 3600;
                default 5)
  --clear       clear the registry through the library: row 0 is emptied and the row
                count set to 0; rows 1 and above keep their contents
  -h, --help    print this text and exit

A warning on standard error names the other live processes that use the file before
--clear changes it.

Examples:
  xajms-registry
  xajms-registry --json
  xajms-registry --in-doubt --wait 2

Exit status: 0 when shown or cleared, or with --in-doubt when every listener asked
answered (also when none is registered); 1 when the file is absent, unreadable or not a
formatted registry file, or with --in-doubt when a listener did not answer, could not be
reached or sent a bad reply; 2 for a bad command line.
)";

struct Options {
    bool json = false;
    bool clear = false;
    bool inDoubt = false;
    bool help = false;
    std::optional<std::string> file;
    std::optional<int> waitMs;
};

// Decimal seconds above 0 and at most 3600, as milliseconds (at least 1); nothing otherwise.
std::optional<int> parseWait(std::string_view text) {
    double seconds = 0;
    const char *end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, seconds, std::chars_format::fixed);
    if (text.empty() || ec != std::errc() || ptr != end || !(seconds > 0) || seconds > 3600) {
        return std::nullopt;
    }
    return std::max(1, static_cast<int>(std::lround(seconds * 1000)));
}

// The value of an option given as "--name=value" or "--name value", advancing i past it.
std::optional<std::string_view> valueOf(std::string_view name, int argc, char **argv, int &i) {
    const std::string_view arg = argv[i];
    if (arg.size() > name.size() && arg.starts_with(name) && arg[name.size()] == '=') {
        return arg.substr(name.size() + 1);
    }
    if (arg == name && i + 1 < argc) {
        return argv[++i];
    }
    return std::nullopt;
}

// Parses the arguments after the program name; on a bad one, puts the reason into why.
std::optional<Options> parse(int argc, char **argv, std::string &why) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "-h") {
            o.help = true;
        } else if (arg == "--json" || arg == "--clear" || arg == "--help") {
            (arg == "--json" ? o.json : arg == "--clear" ? o.clear : o.help) = true;
        } else if (arg == "--in-doubt") {
            o.inDoubt = true;
        } else if (const auto file = valueOf("--file", argc, argv, i)) {
            o.file = std::string(*file);
        } else if (const auto wait = valueOf("--wait", argc, argv, i)) {
            o.waitMs = parseWait(*wait);
            if (!o.waitMs) {
                why = "--wait: seconds must be above 0 and at most 3600: '" + std::string(*wait) +
                      "'";
                return std::nullopt;
            }
        } else {
            why = arg == "--file" || arg == "--wait"
                      ? std::string(arg) + ": missing value"
                      : "unexpected argument '" + std::string(arg) + "' (see --help)";
            return std::nullopt;
        }
    }
    if (o.file && o.file->empty()) {
        why = "--file: empty path";
    } else if (o.clear && (o.json || o.file || o.inDoubt || o.waitMs)) {
        why = "--clear takes no other option: it clears /var/orlom/XA_SWITCH_MMF";
    } else if (o.waitMs && !o.inDoubt) {
        why = "--wait goes with --in-doubt";
    }
    return why.empty() ? std::optional<Options>(o) : std::nullopt;
}

int clear() {
    using namespace xajms::tools;
    const std::string path = xajms::registry::kPath;
    std::string why;
    const std::optional<Snapshot> before = readRegistry(path, why);
    if (!before) {
        std::fprintf(stderr, "xajms-registry: %s; nothing cleared\n", why.c_str());
        return kNoRegistry;
    }
    const std::string warning =
        xajms::tools::sharedFileWarning(path, "clearing row 0 and the row count of");
    if (!warning.empty()) {
        std::fprintf(stderr, "xajms-registry: %s\n", warning.c_str());
    }
    ClearSharedMemory_jms();
    if (shared_stuff == nullptr) {
        std::fprintf(stderr, "xajms-registry: %s: the library cannot attach it\n", path.c_str());
        return kNoRegistry;
    }
    if (before->rowCount < 1) {
        std::printf("%s: nothing cleared, the row count is %d\n", path.c_str(), before->rowCount);
    } else {
        std::printf(
            "%s: row 0 emptied and the row count set to 0 (was %d); rows 1 and above "
            "kept\n",
            path.c_str(), before->rowCount);
    }
    return kDone;
}

int inDoubt(const std::string &path, const xajms::tools::Snapshot &snapshot,
            const Options &options) {
    using namespace xajms::registry_tool;
    const int waitMs = options.waitMs.value_or(kDefaultWaitMs);
    const std::vector<Asked> asked = askListeners(snapshot, waitMs);
    const std::string text =
        options.json ? inDoubtJson(path, asked, waitMs) : inDoubtTable(path, asked, waitMs);
    std::fwrite(text.data(), 1, text.size(), stdout);
    const bool all = std::all_of(asked.begin(), asked.end(),
                                 [](const Asked &a) { return a.answer == Answer::answered; });
    return all ? kDone : kNoRegistry;
}

}  // namespace

int main(int argc, char **argv) {
    using namespace xajms::registry_tool;
    using xajms::tools::readRegistry;
    std::string why;
    const std::optional<Options> options = parse(argc, argv, why);
    if (!options) {
        std::fprintf(stderr, "xajms-registry: %s\n", why.c_str());
        return kBadUsage;
    }
    if (options->help) {
        std::fwrite(kHelp.data(), 1, kHelp.size(), stdout);
        return kDone;
    }
    if (options->clear) {
        return clear();
    }
    const std::string path = options->file.value_or(xajms::registry::kPath);
    const std::optional<Snapshot> snapshot = readRegistry(path, why);
    if (!snapshot) {
        std::fprintf(stderr, "xajms-registry: %s\n", why.c_str());
        return kNoRegistry;
    }
    if (options->inDoubt) {
        return inDoubt(path, *snapshot, *options);
    }
    const std::string text = options->json ? json(path, *snapshot) : table(path, *snapshot);
    std::fwrite(text.data(), 1, text.size(), stdout);
    return kDone;
}
