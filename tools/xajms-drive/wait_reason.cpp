// The explanation of a slow call. The library looks the listeners up among rows 0 to the row
// count inclusive, broker and pending rows alike; without one it retries three times a
// second apart. A port that refuses connections costs three attempts a second apart before
// its row is marked dead, and a listener that does not answer costs 60 seconds.
#include "wait_reason.h"

#include "registry/registry.h"

namespace xajms::drive {

namespace {

namespace registry = xajms::registry;
using tools::ShownRow;
using tools::Snapshot;

constexpr double kAnswerWaitMs = 60000;
constexpr char kNoListener[] =
    "the library looks for one 3 times, a second apart, then returns XAER_RMFAIL";
constexpr char kRefused[] =
    "the library tries 3 times, a second apart, then marks the row dead and goes on";
constexpr char kNoAnswer[] =
    "the library waits up to 60 s for each listener's answer, then returns XAER_RMFAIL";

std::string describe(const ShownRow &row) {
    return "'" + tools::escapedName(row.name) + "' (port " + std::to_string(row.port) + ", pid " +
           std::to_string(row.pid) + (row.alive.value_or(false) ? " alive)" : " gone)");
}

// The rows the library asks: broker and pending rows among rows 0 to the row count inclusive.
std::string asked(const Snapshot &s) {
    const int lastRow = registry::lastRowInclusive(s.rowCount);
    std::string rows;
    for (const ShownRow &row : s.rows) {
        if (row.index <= lastRow &&
            (row.mode == registry::kModeBroker || row.mode == registry::kModePending)) {
            rows += (rows.empty() ? "" : ", ") + describe(row);
        }
    }
    return rows;
}

// The rows that were in use before and are marked dead now, with the same port.
std::string turnedDead(const std::optional<Snapshot> &before, const Snapshot &after) {
    std::string rows;
    for (const ShownRow &row : after.rows) {
        if (row.mode != registry::kModeDead || !before) {
            continue;
        }
        for (const ShownRow &was : before->rows) {
            if (was.index == row.index && was.port == row.port && was.mode != registry::kModeDead &&
                was.mode != registry::kModeEmpty) {
                rows += (rows.empty() ? "" : ", ") + describe(row);
            }
        }
    }
    return rows;
}

}  // namespace

std::optional<Snapshot> registryNow(std::string &why) {
    return tools::readRegistry(registry::kPath, why);
}

std::string waitReason(const std::optional<Snapshot> &before, const std::optional<Snapshot> &after,
                       const std::string &why, double tookMs) {
    if (!after) {
        return why + "; without a registry file " + kNoListener;
    }
    const std::string dead = turnedDead(before, *after);
    const std::string listeners = asked(*after);
    std::string text;
    if (!dead.empty()) {
        text = "the port of " + dead + " refused connections: " + kRefused;
    }
    if (!listeners.empty() && (dead.empty() || tookMs >= kAnswerWaitMs)) {
        text += (text.empty() ? "" : "; ") + std::string("waiting for the answers of ") +
                listeners + ": " + kNoAnswer;
    }
    if (text.empty()) {
        text = "no listener is registered in " + std::string(registry::kPath) +
               " (no broker or pending row): " + kNoListener;
    }
    return text;
}

}  // namespace xajms::drive
