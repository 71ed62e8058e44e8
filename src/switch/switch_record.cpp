// The switch records that the coordinator drives, and the start functions that return them:
// OrloStart the exact switch, OrloStartSafe the hardened one. The first start function called
// fixes the process's mode; the other one then returns null.
#include "switch/switch.h"

#include <cstdlib>
#include <cstring>

#include "pool/pool.h"
#include "trace/trace.h"

extern "C" {

struct xa_switch_t jta_switch_jms = {
    "KEL_VARNELINK",       TMNOMIGRATE,           0,
    xa_open_entry_jms,     xa_close_entry_jms,    xa_start_entry_jms,
    xa_end_entry_jms,      xa_rollback_entry_jms, xa_prepare_entry_jms,
    xa_commit_entry_jms,   xa_recover_entry_jms,  xa_forget_entry_jms,
    xa_complete_entry_jms,
};

int iOrloStart_jms = 0;
char *libpath = nullptr;

}  // extern "C"

namespace {

using xajms::pool::Mode;
using xajms::trace::kVarnelink;

// The hardened switch: the same resource manager and entries as jta_switch_jms, which read
// the mode that OrloStartSafe fixed. Not exported: a record reached without its start
// function would run in whatever mode the process has.
struct xa_switch_t hardenedSwitch = {
    "KEL_VARNELINK",       TMNOMIGRATE,           0,
    xa_open_entry_jms,     xa_close_entry_jms,    xa_start_entry_jms,
    xa_end_entry_jms,      xa_rollback_entry_jms, xa_prepare_entry_jms,
    xa_commit_entry_jms,   xa_recover_entry_jms,  xa_forget_entry_jms,
    xa_complete_entry_jms,
};

// Switches tracing on from XAJMS_TRACEFILE unless it is on already (a name longer than 486
// characters leaves it off), fixes the mode unless it is fixed, and returns the record. A
// start function of the other mode, once one has fixed it, is refused: null, so that the
// coordinator fails to start the resource manager instead of running it in the wrong mode.
struct xa_switch_t *start(const char *literal, Mode mode, struct xa_switch_t &record) {
    iOrloStart_jms += 1;
    if (!xajms::trace::on(jmstracefile)) {
        const char *name = std::getenv(xajms::trace::kTraceVariable);
        if (name != nullptr && std::strlen(name) <= xajms::trace::kMaxPrefix) {
            std::snprintf(jmstracefile, sizeof jmstracefile, "%.486s", name);
        }
    }
    traceJMSEntry(jmstracefile, kVarnelink, literal);
    if (xajms::trace::on(jmstracefile)) {
        std::snprintf(vStrTrace_jms, sizeof vStrTrace_jms, "%s", "ON");
        std::snprintf(vStrTraceFile_jms, sizeof vStrTraceFile_jms, "%s", jmstracefile);
        xajms::trace::data(
            jmstracefile, kVarnelink, literal,
            "Database switch flags=%d, Resource name=%s, number of calls this process=%d",
            static_cast<int>(record.flags), record.name, iOrloStart_jms);
    }
    libpath = std::getenv("XAJMS_LOCATION");
    if (libpath != nullptr) {
        xajms::trace::data(jmstracefile, kVarnelink, literal, "Library Path: %s", libpath);
    }
    const bool fixed = xajms::pool::fixMode(mode) == mode;
    if (!fixed) {
        traceJMSData(jmstracefile, kVarnelink, literal,
                     "Refused: this process already runs the switch of the other start function");
    }
    traceJMSExit(jmstracefile, kVarnelink, literal);
    return fixed ? &record : nullptr;
}

}  // namespace

extern "C" {

// Returns the exact switch, or null once OrloStartSafe has fixed the hardened mode.
// Repeated calls are harmless.
struct xa_switch_t *OrloStart(void) {
    return start("OrloStart", Mode::kExact, jta_switch_jms);
}

// Returns the hardened switch, or null once OrloStart has fixed the exact mode. Repeated
// calls are harmless.
struct xa_switch_t *OrloStartSafe(void) {
    return start("OrloStartSafe", Mode::kHardened, hardenedSwitch);
}

}  // extern "C"
