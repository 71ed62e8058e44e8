// A stand-in for the companion JNI library: its "JNIStartJMS" hands out a table whose open,
// start and end slots record every call and return the codes a test sets.
#include "support/pellux/pellux.h"

#include <cstdio>

namespace {

PelluxState state;

int record(int slot, const char *openstring, const XID *xid, int rmid, long flags) {
    if (state.count < static_cast<int>(sizeof state.calls / sizeof state.calls[0])) {
        PelluxCall &call = state.calls[state.count++];
        call = PelluxCall{slot, {}, xid != nullptr, xid != nullptr ? *xid : XID{}, rmid, flags};
        std::snprintf(call.openstring, sizeof call.openstring, "%s",
                      openstring != nullptr ? openstring : "");
    }
    return state.results[slot == 0 ? 0 : slot - 1];
}

int open(char *openstring, int rmid, long flags) {
    return record(0, openstring, nullptr, rmid, flags);
}
int start(XID *xid, int rmid, long flags) {
    return record(2, nullptr, xid, rmid, flags);
}
int end(XID *xid, int rmid, long flags) {
    return record(3, nullptr, xid, rmid, flags);
}

JNISwitchJMS table = {open, nullptr, start, end};

}  // namespace

extern "C" {
JNISwitchJMS *JNIStartJMS(void) {
    return &table;
}
PelluxState *pelluxState(void) {
    return &state;
}
}
