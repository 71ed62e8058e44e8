// The control interface of the test companion library libPellux.so.
#pragma once

#include <xajms/xajms.h>

#include <cstdio>

// One call that reached the table: slot 0 open, 2 start, 3 end.
struct PelluxCall {
    int slot;
    char openstring[300];
    int hasXid;
    XID xid;
    int rmid;
    long flags;
};

extern "C" {
JNISwitchJMS *JNIStartJMS(void);
// Forgets the calls so far and sets what open, start and end return.
void pelluxReset(int openResult, int startResult, int endResult);
int pelluxCallCount(void);
const PelluxCall *pelluxCall(int index);
}
