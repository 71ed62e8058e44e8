// xajms-drive: parses the command line, loads the switch load file, calls ZJavaInitSwitchJMS
// (with --broker) and the start function, then runs the verbs. Exit status 0 when every
// call returned what was expected, 1 when one did not, 2 when the run could not begin.
#include <dirent.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "options.h"
#include "run.h"
#include "switch_library.h"
#include "xa_names.h"

namespace {

constexpr int kAsExpected = 0;
constexpr int kUnexpected = 1;
constexpr int kBadUsage = 2;

using Clock = std::chrono::steady_clock;
using StartFunction = xa_switch_t *(*)();
using BrokerHook = long (*)();

double millisecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

// Calls the broker hook; returns true when it returned 0.
bool initialiseBroker(BrokerHook hook) {
    const Clock::time_point begin = Clock::now();
    const long rc = hook();
    const double took = millisecondsSince(begin);
    std::printf("ZJavaInitSwitchJMS -> %ld %.3f ms%s\n", rc, took, rc == 0 ? "" : " (expected 0)");
    return rc == 0;
}

// Calls the start function and shows the switch record it returned; null when it
// returned none.
const xa_switch_t *startSwitch(StartFunction start, const std::string &name) {
    const Clock::time_point begin = Clock::now();
    const xa_switch_t *record = start();
    const double took = millisecondsSince(begin);
    if (record == nullptr) {
        std::printf("%s -> null %.3f ms (expected a switch)\n", name.c_str(), took);
        return nullptr;
    }
    const std::string switchName(record->name, strnlen(record->name, RMNAMESZ));
    std::printf("%s -> switch '%s' flags=%s version=%ld %.3f ms\n", name.c_str(),
                xajms::drive::printable(switchName).c_str(),
                xajms::drive::flagNames(record->flags).c_str(), record->version, took);
    return record;
}

// Loads the library, starts the switch and runs the verbs; the library is closed again on
// return (and unloaded, with --reload).
int driveLoaded(const xajms::drive::Options &options) {
    using namespace xajms::drive;
    const SwitchLibrary library(options.library, !options.reload);
    const auto start = reinterpret_cast<StartFunction>(library.function(options.startFunction));
    const auto hook = options.broker
                          ? reinterpret_cast<BrokerHook>(library.function("ZJavaInitSwitchJMS"))
                          : nullptr;
    bool allExpected = true;
    if (hook != nullptr) {
        allExpected = initialiseBroker(hook);
    }
    const xa_switch_t *record = startSwitch(start, options.startFunction);
    if (record == nullptr) {
        return kUnexpected;
    }
    if (const std::string missing = missingEntry(*record, options); !missing.empty()) {
        std::fprintf(stderr, "xajms-drive: the switch has no %s\n", missing.c_str());
        return kUnexpected;
    }
    const long unexpected = runCalls(*record, options, stdout);
    return allExpected && unexpected == 0 ? kAsExpected : kUnexpected;
}

// What the process holds that an unloaded library could have left behind: open descriptors
// and mappings of files (the registry file, the library itself), counted from /proc/self.
// Anonymous mappings are left out: the C library's and a sanitizer's allocators map and unmap
// them as they please.
struct Holdings {
    long descriptors = 0;
    long mappings = 0;
};

Holdings holdings() {
    Holdings held;
    if (DIR *fds = opendir("/proc/self/fd"); fds != nullptr) {
        while (const dirent *entry = readdir(fds)) {
            held.descriptors += entry->d_name[0] != '.' ? 1 : 0;
        }
        closedir(fds);
        held.descriptors -= 1;  // the directory's own descriptor
    }
    if (std::FILE *maps = std::fopen("/proc/self/maps", "r"); maps != nullptr) {
        // A line is "range perms offset dev inode [path]"; a file's path starts with '/'.
        char line[4096];
        while (std::fgets(line, sizeof line, maps) != nullptr) {
            const char *path = std::strchr(line, '/');
            held.mappings += path != nullptr ? 1 : 0;
        }
        std::fclose(maps);
    }
    return held;
}

// With --reload, one load, run and unload per round. The first round may leave what the
// loader and the C library keep for good; every later round must leave nothing.
int drive(const xajms::drive::Options &options) {
    if (!options.reload) {
        return driveLoaded(options);
    }
    xajms::drive::Options once = options;
    once.repeat = 1;
    bool allExpected = true;
    Holdings first;
    for (int round = 1; round <= options.repeat; ++round) {
        allExpected = driveLoaded(once) == kAsExpected && allExpected;
        if (round == 1) {
            first = holdings();
        }
    }
    const Holdings last = holdings();
    const long descriptors = last.descriptors - first.descriptors;
    const long mappings = last.mappings - first.mappings;
    const bool kept = descriptors > 0 || mappings > 0;
    std::printf("unloaded %d times: descriptors %+ld, mappings %+ld after the first unload%s\n",
                options.repeat, descriptors, mappings, kept ? " (expected +0)" : "");
    return allExpected && !kept ? kAsExpected : kUnexpected;
}

}  // namespace

int main(int argc, char **argv) {
    using namespace xajms::drive;
    Options options;
    try {
        options = parseOptions(argc - 1, argv + 1);
    } catch (const UsageError &e) {
        std::fprintf(stderr, "xajms-drive: %s\n", e.what());
        return kBadUsage;
    }
    if (options.help) {
        std::fwrite(helpText().data(), 1, helpText().size(), stdout);
        return kAsExpected;
    }
    // Line-buffered, so that the lines already printed survive a library that ends the
    // process.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    try {
        return drive(options);
    } catch (const LoadError &e) {
        std::fprintf(stderr, "xajms-drive: %s\n", e.what());
        return kBadUsage;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "xajms-drive: %s\n", e.what());
        return kUnexpected;
    }
}
