// The switch record that the coordinator drives, and OrloStart, which the coordinator calls
// once it has loaded the library to get the record's address.
#include "switch/switch.h"

#include <cstdlib>
#include <cstring>

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

// Switches tracing on from XAJMS_TRACEFILE unless it is on already (a name longer than 486
// characters leaves it off), and returns the switch record. Repeated calls are harmless.
struct xa_switch_t *OrloStart(void) {
    using xajms::trace::kVarnelink;
    iOrloStart_jms += 1;
    if (!xajms::trace::on(jmstracefile)) {
        const char *name = std::getenv(xajms::trace::kTraceVariable);
        if (name != nullptr && std::strlen(name) <= xajms::trace::kMaxPrefix) {
            std::snprintf(jmstracefile, sizeof jmstracefile, "%.486s", name);
        }
    }
    traceJMSEntry(jmstracefile, kVarnelink, "OrloStart");
    if (xajms::trace::on(jmstracefile)) {
        std::snprintf(vStrTrace_jms, sizeof vStrTrace_jms, "%s", "ON");
        std::snprintf(vStrTraceFile_jms, sizeof vStrTraceFile_jms, "%s", jmstracefile);
        xajms::trace::data(
            jmstracefile, kVarnelink, "OrloStart",
            "Database switch flags=%d, Resource name=%s, number of calls this process=%d",
            static_cast<int>(jta_switch_jms.flags), jta_switch_jms.name, iOrloStart_jms);
    }
    libpath = std::getenv("XAJMS_LOCATION");
    if (libpath != nullptr) {
        xajms::trace::data(jmstracefile, kVarnelink, "OrloStart", "Library Path: %s", libpath);
    }
    traceJMSExit(jmstracefile, kVarnelink, "OrloStart");
    return &jta_switch_jms;
}

}  // extern "C"
