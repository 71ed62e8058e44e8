// xajms-eg: the execution-group host. Parses the command line and the open strings, then
// fills or checks the queues directly, or opens both resources through the switch as a broker
// process does, recovers, and moves messages. Exit status 0 when the work is done, 1 when it
// could not be, 2 for a bad command line or open string.
#include <sys/stat.h>
#include <unistd.h>

#include <xajms/eg.h>
#include <xajms/xajms.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <string>
#include <system_error>
#include <vector>

#include "decisions.h"
#include "eg.h"
#include "options.h"
#include "queue.h"
#include "recover.h"
#include "run.h"
#include "shutdown.h"
#include "xa_names.h"

namespace {

using namespace xajms::eg_host;

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kBadUsage = 2;

constexpr char kRegistryDir[] = "/var/orlom";
constexpr char kRegistryFile[] = "/var/orlom/XA_SWITCH_MMF";

// The open strings, parsed; throws UsageError when one does not parse or they name two groups.
std::vector<xajms::eg::OpenString> parseOpenStrings(const Options &options) {
    std::vector<xajms::eg::OpenString> parsed;
    for (const std::string *text : {&options.source, &options.target}) {
        if (text->empty()) {
            continue;
        }
        std::string why;
        const auto open = xajms::eg::parseOpenString(*text, why);
        if (!open) {
            throw UsageError(std::string(text == &options.source ? "--source" : "--target") + ": " +
                             why);
        }
        parsed.push_back(*open);
    }
    if (parsed.size() == 2 && parsed[0].eg != parsed[1].eg) {
        throw UsageError("--source and --target name two execution groups ('" + parsed[0].eg +
                         "', '" + parsed[1].eg + "'): one process serves one");
    }
    return parsed;
}

// The decision log of the group unless --decisions names one: a name safe as a file name.
std::string decisionPath(const Options &options, const std::string &group) {
    if (!options.decisions.empty()) {
        return options.decisions;
    }
    std::string safe = group;
    for (char &c : safe) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.';
        c = plain ? c : '_';
    }
    return std::string(kRegistryDir) + "/xajms-eg." + safe + ".decisions";
}

// Throws Failure when the execution group's listener could not register: the registry's
// directory is missing, or the file (or, while it is missing, the directory) is not writable.
void checkRegistry() {
    struct stat st {};
    if (::stat(kRegistryDir, &st) != 0 || !S_ISDIR(st.st_mode)) {
        throw Failure(std::string("the registry directory ") + kRegistryDir + " does not exist");
    }
    const bool exists = ::access(kRegistryFile, F_OK) == 0;
    if (::access(exists ? kRegistryFile : kRegistryDir, W_OK) != 0) {
        const int err = errno;
        throw Failure(
            std::string(exists ? "the registry file " : "cannot create the registry file ") +
            kRegistryFile + (exists ? " is not writable: " : ": ") +
            std::system_category().message(err));
    }
}

// Opens each rmid through the switch; throws Failure naming the first that refused.
void openResources(const Host &host, const std::vector<xajms::eg::OpenString> &opens,
                   const Options &options) {
    const std::string *texts[] = {&options.source, &options.target};
    for (std::size_t i = 0; i < host.rmids.size(); ++i) {
        std::string text = *texts[i];
        const int rc = host.sw->xa_open_entry(text.data(), host.rmids[i], TMNOFLAGS);
        if (rc != XA_OK) {
            throw Failure("xa_open of rmid " + std::to_string(host.rmids[i]) + " (" + opens[i].eg +
                          ") returned " + xajms::drive::codeName(rc));
        }
    }
}

// Closes each rmid through the switch and stops the group's listener, which finishes the
// requests in flight and empties its registry row.
void closeResources(const Host &host) {
    for (const int rmid : host.rmids) {
        host.sw->xa_close_entry(nullptr, rmid, TMNOFLAGS);
    }
    if (!stopListener()) {
        std::fprintf(stderr,
                     "xajms-eg: the listener did not stop; its registry row stays until "
                     "the next execution group registers\n");
    }
}

std::string runId() {
    char text[40];
    std::snprintf(text, sizeof text, "%lx.%lx", static_cast<unsigned long>(std::time(nullptr)),
                  static_cast<unsigned long>(::getpid()));
    return text;
}

int fillOrCheck(const Options &options, const std::vector<xajms::eg::OpenString> &opens) {
    Connection source = connectTo(opens[0].conninfo, "source");
    Connection target = opens.size() > 1 ? connectTo(opens[1].conninfo, "target") : nullptr;
    PGconn *targetPg = target ? target.get() : source.get();
    if (options.action == Action::fill) {
        fillQueues(source.get(), targetPg, options.fill);
        std::printf("filled: %ld messages in source_queue, target_queue empty\n", options.fill);
        return kDone;
    }
    // Branches in doubt hide their work from the counts: only a recovery can say whether the
    // invariant holds, so the check does not pass while any is left.
    const Counts c = countQueues(source.get(), targetPg);
    const char *verdict =
        c.inDoubt > 0 ? "not final, recover first" : (c.holds() ? "exactly once" : "BROKEN");
    std::printf(
        "check: total %ld, source %ld, target %ld, in both %ld, in neither %ld, "
        "unknown %ld, in doubt %ld: %s\n",
        c.total, c.source, c.target, c.both, c.missing, c.strangers, c.inDoubt, verdict);
    return c.holds() && c.inDoubt == 0 ? kDone : kFailed;
}

int hostRun(const Options &options, const std::vector<xajms::eg::OpenString> &opens) {
    checkRegistry();
    DecisionLog log(decisionPath(options, opens[0].eg), opens[0].eg);
    for (std::size_t i = 0; i < opens.size(); ++i) {
        connectTo(opens[i].conninfo, i == 0 ? "source" : "target");
    }
    Host host;
    host.rmids = opens.size() == 1 ? std::vector<int>{1} : std::vector<int>{1, 2};
    host.log = &log;
    host.crash = options.crash;
    host.pause = options.pause;
    host.run = runId();
    ZJavaInitSwitchJMS();
    host.sw = OrloStart();
    openResources(host, opens, options);
    if (options.action == Action::inDoubt) {
        listInDoubt(host, stdout);
        closeResources(host);
        return kDone;
    }
    recoverBranches(host, stdout, options.quiet);
    int status = kDone;
    if (options.action == Action::move) {
        const RunResult r = runUnits(host, options.messages, options.threads, !options.quiet);
        std::printf("moved %ld messages in %.2f s: %.0f per second (%s, %d thread%s)\n", r.moved,
                    r.seconds, r.seconds > 0 ? r.moved / r.seconds : 0.0,
                    host.rmids.size() == 1 ? "one resource, one-phase commit"
                                           : "two resources, two-phase commit",
                    options.threads, options.threads == 1 ? "" : "s");
        if (!r.failure.empty()) {
            std::fflush(stdout);
            std::fprintf(stderr, "xajms-eg: %s\n", r.failure.c_str());
            status = kFailed;
        }
    }
    closeResources(host);
    return status;
}

}  // namespace

int main(int argc, char **argv) {
    std::signal(SIGPIPE, SIG_IGN);
    try {
        const Options options = parseOptions(std::vector<std::string_view>(argv + 1, argv + argc));
        if (options.action == Action::help) {
            std::fwrite(helpText().data(), 1, helpText().size(), stdout);
            return kDone;
        }
        const auto opens = parseOpenStrings(options);
        if (options.action == Action::fill || options.action == Action::check) {
            return fillOrCheck(options, opens);
        }
        return hostRun(options, opens);
    } catch (const UsageError &e) {
        std::fprintf(stderr, "xajms-eg: %s\n", e.what());
        return kBadUsage;
    } catch (const Failure &e) {
        std::fflush(stdout);
        std::fprintf(stderr, "xajms-eg: %s\n", e.what());
        return kFailed;
    }
}
