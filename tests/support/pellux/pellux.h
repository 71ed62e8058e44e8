// The state of the test companion library libPellux.so, which tests read and set.
#pragma once

#include <xajms/xajms.h>

// One call that reached the table: slot 0 open, 2 start, 3 end.
struct PelluxCall {
    int slot;
    char openstring[300];
    int hasXid;
    XID xid;
    int rmid;
    long flags;
};

// What open, start and end return, and the calls since a test last cleared `count`.
struct PelluxState {
    int results[3];
    int count;
    PelluxCall calls[64];
};

extern "C" {
JNISwitchJMS *JNIStartJMS(void);
PelluxState *pelluxState(void);
}
