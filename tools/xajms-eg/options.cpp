// Parsing of xajms-eg's command line into Options, and the --help text. Every refusal is a
// UsageError with a one-line reason.
#include "options.h"

#include <array>
#include <charconv>
#include <utility>

namespace xajms::eg_host {

namespace {

constexpr std::string_view kHelp =
    R"(usage: xajms-eg --source OPEN [--target OPEN] [options]

An execution-group host: it loads libxajms and the PostgreSQL execution group (libPellux.so)
as a broker process does (ZJavaInitSwitchJMS, OrloStart, xa_open of each resource) and moves
messages, each exactly once, from the queue table source_queue in the source database to the
queue table target_queue in the target database. A unit of work moves one message: a new
XID, xa_start on each resource, a DELETE on the source and an INSERT on the target through
the branches' connections, xa_end, xa_prepare of each, the commit decision written to the
decision log and fsync'd, xa_commit of each, the decision forgotten. A prepare that refuses
or fails rolls every branch back. With one resource both tables are in the source database
and the unit commits in one phase.

Every run but --in-doubt's first recovers: it asks the group's listener for the prepared
branches of each resource, commits those whose decision is in the log and rolls back the
others, one line per XID, then empties the log.

Resources (open strings of libPellux.so: eg=NAME conninfo='...' [log=FILE]):
  --source OPEN       rmid 1, the source queue's database (required).
  --target OPEN       rmid 2, the target queue's database; both strings name the same
                      execution group. Without it: one resource, one-phase commit.

What to do (one of; moving messages is the default):
  --recover           recover, then stop.
  --in-doubt          list the in-doubt branches and what a recovery would do with each,
                      resolving nothing.
  --fill N            create the queue tables where missing, empty them and write the
                      messages 1..N into the source queue (directly, not through the switch).
  --check             the invariant: every message 1..N of the last fill is in exactly one
                      of the two queues. Prints the counts; exit status 1 when it is broken,
                      or while branches are in doubt (they hide their work: recover first).

Moving:
  --messages N        move at most N messages (default: until the source queue is empty).
  --threads N         threads, each running its own units (default 1, at most 64).
  --decisions FILE    the decision log (default /var/orlom/xajms-eg.NAME.decisions). It is
                      locked while the process runs: a second xajms-eg of the same group
                      is refused.
  --quiet             no progress lines, no line for a recovery that found nothing.
  A progress line is printed each second of a run that lasts longer.

For tests and demonstrations (PHASE is start, work, prepare, decision or commit; K counts
units from 1 over all threads). The points are: after xa_start of each resource; after the
work and xa_end; after every prepare, before the decision is written; after the decision is
written, before the first commit; after the first commit. With one resource, prepare and
decision are the moment before the one-phase commit, and commit the moment after it.
  --crash-after PHASE:K   kill the process with SIGKILL at that point of unit K.
  --pause-after PHASE:K   stop the process with SIGSTOP there; it goes on after SIGCONT.

  -h, --help          print this text and exit.

Examples (against a database of your own: a PostgreSQL server with max_prepared_transactions
of at least the number of threads):
  xajms-eg --source "eg=EG1 conninfo='dbname=a'" --target "eg=EG1 conninfo='dbname=b'" --fill 1000
  xajms-eg --source "eg=EG1 conninfo='dbname=a'" --target "eg=EG1 conninfo='dbname=b'" --threads 4
  xajms-eg --source "eg=EG1 conninfo='dbname=a'" --target "eg=EG1 conninfo='dbname=b'" --check

Exit status: 0 when the work is done (every message asked for moved, the recovery finished,
the invariant holds); 1 when it could not be: a resource that cannot be opened or went away,
a unit that failed, another xajms-eg of the group, a broken invariant; 2 for a bad command
line or open string.
)";

constexpr std::array<std::pair<std::string_view, Phase>, 5> kPhases{{
    {"start", Phase::start},
    {"work", Phase::work},
    {"prepare", Phase::prepare},
    {"decision", Phase::decision},
    {"commit", Phase::commit},
}};

long parseCount(std::string_view option, std::string_view text, long low, long high) {
    long value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || value < low || value > high) {
        throw UsageError(std::string(option) + " wants a number from " + std::to_string(low) +
                         " to " + std::to_string(high) + ", not '" + std::string(text) + "'");
    }
    return value;
}

UnitPoint parsePoint(std::string_view option, std::string_view text) {
    const std::size_t colon = text.find(':');
    for (const auto &[name, phase] : kPhases) {
        if (colon != std::string_view::npos && text.substr(0, colon) == name) {
            return {phase, parseCount(option, text.substr(colon + 1), 1, 1'000'000'000)};
        }
    }
    throw UsageError(std::string(option) + " wants PHASE:K, PHASE one of start, work, " +
                     "prepare, decision, commit; not '" + std::string(text) + "'");
}

// Sets the action once; a second action option is refused.
void setAction(Options &options, Action action, bool &chosen, std::string_view option) {
    if (chosen) {
        throw UsageError("choose one of --recover, --in-doubt, --fill and --check (" +
                         std::string(option) + ")");
    }
    chosen = true;
    options.action = action;
}

}  // namespace

std::string_view helpText() {
    return kHelp;
}

std::string_view phaseName(Phase phase) {
    for (const auto &[name, p] : kPhases) {
        if (p == phase) {
            return name;
        }
    }
    return "none";
}

Options parseOptions(const std::vector<std::string_view> &args) {
    Options options;
    bool chosen = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string_view option = args[i];
        if (option == "-h" || option == "--help") {
            options.action = Action::help;
            return options;
        }
        if (option == "--quiet") {
            options.quiet = true;
            continue;
        }
        if (option == "--recover" || option == "--check" || option == "--in-doubt") {
            const Action action = option == "--check"     ? Action::check
                                  : option == "--recover" ? Action::recover
                                                          : Action::inDoubt;
            setAction(options, action, chosen, option);
            continue;
        }
        if (i + 1 >= args.size()) {
            throw UsageError(std::string(option) +
                             ": unknown option or missing value (try --help)");
        }
        const std::string_view value = args[++i];
        if (option == "--source") {
            options.source = value;
        } else if (option == "--target") {
            options.target = value;
        } else if (option == "--messages") {
            options.messages = parseCount(option, value, 0, 1'000'000'000);
        } else if (option == "--fill") {
            setAction(options, Action::fill, chosen, option);
            options.fill = parseCount(option, value, 0, 100'000'000);
        } else if (option == "--threads") {
            options.threads = static_cast<int>(parseCount(option, value, 1, 64));
        } else if (option == "--decisions") {
            options.decisions = value;
        } else if (option == "--crash-after") {
            options.crash = parsePoint(option, value);
        } else if (option == "--pause-after") {
            options.pause = parsePoint(option, value);
        } else {
            throw UsageError(std::string(option) + ": unknown option (try --help)");
        }
    }
    if (options.source.empty()) {
        throw UsageError("--source OPEN is required (try --help)");
    }
    return options;
}

}  // namespace xajms::eg_host
