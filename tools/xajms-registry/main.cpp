// xajms-registry: shows the registry file as a table or as JSON, or clears it through the
// library. Exit status 0 when shown or cleared, 1 when the file is absent, unreadable or
// not formatted, 2 for a bad command line.
#include <xajms/xajms.h>

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "common/registry_snapshot.h"
#include "common/shared_file.h"
#include "registry/registry.h"
#include "show.h"

namespace {

constexpr int kDone = 0;
constexpr int kNoRegistry = 1;
constexpr int kBadUsage = 2;

constexpr std::string_view kHelp =
    R"(usage: xajms-registry [--json] [--file PATH]
       xajms-registry --clear

Shows the registry file in which execution groups register their XA listener ports: for
each row the execution group name, the port, the pid and whether that process is alive,
and the mode (empty, start-up recovery, broker, dead, pending), with the row count. Rows
at or beyond the row count are shown when they are in use, marked with '*'.

  --json        one JSON object instead of the table, for scripts
  --file PATH   read this file instead of /var/orlom/XA_SWITCH_MMF (read only)
  --clear       clear the registry through the library: row 0 is emptied and the row
                count set to 0; rows 1 and above keep their contents
  -h, --help    print this text and exit

A warning on standard error names the other live processes that use the file before
--clear changes it.

Examples:
  xajms-registry
  xajms-registry --json

Exit status: 0 when shown or cleared, 1 when the file is absent, unreadable or not a
formatted registry file, 2 for a bad command line.
)";

struct Options {
    bool json = false;
    bool clear = false;
    bool help = false;
    std::optional<std::string> file;
};

// Parses the arguments after the program name; on a bad one, puts the reason into why.
std::optional<Options> parse(int argc, char **argv, std::string &why) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "-h") {
            o.help = true;
        } else if (arg == "--json" || arg == "--clear" || arg == "--help") {
            (arg == "--json" ? o.json : arg == "--clear" ? o.clear : o.help) = true;
        } else if (arg.starts_with("--file=")) {
            o.file = std::string(arg.substr(7));
        } else if (arg == "--file" && i + 1 < argc) {
            o.file = argv[++i];
        } else {
            why = arg == "--file" ? "--file: missing value"
                                  : "unexpected argument '" + std::string(arg) + "' (see --help)";
            return std::nullopt;
        }
    }
    if (o.file && o.file->empty()) {
        why = "--file: empty path";
    } else if (o.clear && (o.json || o.file)) {
        why = "--clear takes no other option: it clears /var/orlom/XA_SWITCH_MMF";
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
    const std::string text = options->json ? json(path, *snapshot) : table(path, *snapshot);
    std::fwrite(text.data(), 1, text.size(), stdout);
    return kDone;
}
