// xajms-eg's command line: what to do (move, recover only, fill, check), the two open strings,
// the size of the run, and the point of a unit at which a test makes the process die or stop.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace xajms::eg_host {

// A refused command line; what() is the one-line reason.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class Action { move, recover, inDoubt, fill, check, help };

// The points of a unit, in the order a unit passes them.
enum class Phase { none, start, work, prepare, decision, commit };

// A point of one unit (numbered from 1 over all threads of the run).
struct UnitPoint {
    Phase phase = Phase::none;
    long unit = 0;
};

struct Options {
    Action action = Action::move;
    std::string source;  // open string of rmid 1: the database holding the source queue
    std::string target;  // open string of rmid 2, empty for one resource
    long messages = -1;  // at most this many units; -1 until the source queue is empty
    long fill = 0;       // --fill: messages to write into the source queue
    int threads = 1;
    UnitPoint crash;        // SIGKILL here
    UnitPoint pause;        // SIGSTOP here
    std::string decisions;  // the decision log; empty for the default of the group
    bool quiet = false;     // no recover lines for an empty recovery, no progress lines
};

// Parses argv; throws UsageError.
Options parseOptions(const std::vector<std::string_view> &args);

std::string_view helpText();

std::string_view phaseName(Phase phase);

}  // namespace xajms::eg_host
