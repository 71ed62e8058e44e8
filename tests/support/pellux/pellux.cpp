// A stand-in for the companion JNI library: its "JNIStartJMS" hands out a table whose open,
// start and end slots record every call and return the codes a test sets.
#include "support/pellux/pellux.h"

#include <cstring>
#include <vector>

namespace {

std::vector<PelluxCall> calls;
int results[3] = {0, 0, 0};

int record(int slot, const char *openstring, const XID *xid, int rmid, long flags) {
    PelluxCall call{};
    call.slot = slot;
    if (openstring != nullptr) {
        std::snprintf(call.openstring, sizeof call.openstring, "%s", openstring);
    }
    if (xid != nullptr) {
        call.xid = *xid;
        call.hasXid = 1;
    }
    call.rmid = rmid;
    call.flags = flags;
    calls.push_back(call);
    return results[slot == 0 ? 0 : slot - 1];
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

void pelluxReset(int openResult, int startResult, int endResult) {
    calls.clear();
    results[0] = openResult;
    results[1] = startResult;
    results[2] = endResult;
}

int pelluxCallCount(void) {
    return static_cast<int>(calls.size());
}

const PelluxCall *pelluxCall(int index) {
    return index >= 0 && index < pelluxCallCount() ? &calls[static_cast<size_t>(index)] : nullptr;
}

}  // extern "C"
