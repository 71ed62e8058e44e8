// The process-wide state that every XA entry consults, and the two hooks with which a
// broker's execution group announces itself before its first XA call.
#include "switch/switch.h"

#include "trace/trace.h"

extern "C" {

int flBrokerInit_jms = 0;
int flRecoveryInit_jms = 0;
int flGotJNISwitch_jms = 0;
int flBrokerHasDeployed_jms = 0;
int intXAOpen_jms = 0;
int intClearedConnectionPool_jms = 0;
JNISwitchJMS *pJNI_Switch = nullptr;
RmidOpenstrEntry *pRmidOpenstrTable = nullptr;

// Kept for the companion code, which looks them up by name; nothing here uses them.
long RecoveryFlags_jms = 0;
int RecoveryRmid_jms = 0;
char RecoveryArgs_jms[1536] = {};
char vStrJavaCommand_jms[1024] = {};
XID globalXid = {};
XID *pglobalXid = &globalXid;

// Marks this process as a broker process for good. Returns 0.
long ZJavaInitSwitchJMS(void) {
    xajms::trace::copyFromEnvironment(jmstracefile);
    traceJMSEntry(jmstracefile, xajms::trace::kVarnelink, "ZJavaInitSwitchJMS");
    flBrokerInit_jms += 1;
    traceJMSExit(jmstracefile, xajms::trace::kVarnelink, "ZJavaInitSwitchJMS");
    return 0;
}

// Counts the broker's recovery start-ups. Returns 0.
long ZJavaInitRecoverJMS(void) {
    xajms::trace::copyFromEnvironment(jmstracefile);
    traceJMSEntry(jmstracefile, xajms::trace::kVarnelink, "ZJavaInitRecoverJMS");
    flRecoveryInit_jms += 1;
    traceJMSExit(jmstracefile, xajms::trace::kVarnelink, "ZJavaInitRecoverJMS");
    return 0;
}

}  // extern "C"
