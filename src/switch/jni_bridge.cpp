// The JNI bridge of a broker process: the table of Java entry points fetched from the
// companion library, and the start and end entries that call through it. Start also replays
// an open string that an open stored before the process reached Java (the deferred open).
#include "switch/switch.h"

#include <dlfcn.h>
#include <cstdio>

#include "trace/trace.h"

namespace {

using xajms::trace::kVarnelink;

constexpr char kNotAvailable[] =
    "Execution Group is not available or there is a problem with the Pellux or JMSXAHAndler)";
constexpr int kXaerRmerr = -3;

using StartFunction = JNISwitchJMS *(*)();

// Replays the open string stored for the rmid through jniXAJMSOpen, if the open table holds
// one; a successful replay means the table need not be fetched again.
void deferredOpen(int rmid, long flags) {
    char openstring[sizeof RmidOpenstrEntry::openstring + 1];
    {
        const xajms::switch_::OpenTableGuard guard;
        if (pRmidOpenstrTable == nullptr) {
            return;
        }
        traceJMSData(jmstracefile, kVarnelink, "xa_start_entry_jms",
                     "Retrieving Openstring stored by xa_open_entry_jms");
        const RmidOpenstrEntry *entry = xajms::switch_::openRecord(rmid);
        if (entry == nullptr || entry->rmid != static_cast<uint32_t>(rmid)) {
            return;
        }
        traceJMSData(jmstracefile, kVarnelink, "xa_start_entry_jms",
                     "found rmid in openstrings and calling jniXAJMSOpen");
        xajms::switch_::copyOpenString(*entry, openstring);
    }
    // Java is called without the guard: an open there may take long, and closes of other
    // threads must not wait for it.
    const int rc = xajms::switch_::javaOpen(openstring, rmid, flags);
    xajms::trace::data(jmstracefile, kVarnelink, "xa_start_entry_jms",
                       "return code from jniXAJMSOpen = %d", rc);
    if (rc == 0) {
        flGotJNISwitch_jms += 1;
    }
}

}  // namespace

namespace xajms::switch_ {

int javaOpen(char *openstring, int rmid, long flags) {
    if (pJNI_Switch == nullptr || pJNI_Switch->jniXAJMSOpen == nullptr) {
        return kXaerRmerr;
    }
    return pJNI_Switch->jniXAJMSOpen(openstring, rmid, flags);
}

void copyOpenString(const RmidOpenstrEntry &entry, char (&out)[sizeof entry.openstring + 1]) {
    std::snprintf(out, sizeof out, "%.*s", static_cast<int>(sizeof entry.openstring),
                  entry.openstring);
}

}  // namespace xajms::switch_

extern "C" {

// Fetches the table of Java entry points from "libPellux.so", which the broker process has
// loaded already; the handle taken here is released again at once. The load asks the loader
// never to unmap the companion: where the library was found on the loader's path and nobody
// else held it, releasing the handle would otherwise unload the code the table points into,
// and the next start or end would jump into freed memory. When the library cannot be loaded
// the table is left null, so that the entries report Java as unavailable.
void GetJNISwitch_jms(void) {
    xajms::trace::copyFromEnvironment(jmstracefile);
    traceJMSEntry(jmstracefile, kVarnelink, "GetJniSwitch_jms");
    void *library = dlopen("libPellux.so", RTLD_NOW | RTLD_GLOBAL | RTLD_NODELETE);
    if (library == nullptr) {
        traceJMSData(jmstracefile, kVarnelink, "GetJniSwitch_jms", " JMS JNI LoadLibrary failed");
        pJNI_Switch = nullptr;
        traceJMSExit(jmstracefile, kVarnelink, "GetJniSwitch_jms");
        return;
    }
    traceJMSData(jmstracefile, kVarnelink, "GetJniSwitch_jms", " JMS JNI LoadLibrary successful");
    auto start = reinterpret_cast<StartFunction>(dlsym(library, "JNIStartJMS"));
    if (start == nullptr) {
        traceJMSExitData(jmstracefile, kVarnelink, "GetJniSwitch_jms",
                         "failed to get JNIStart JMS entry point");
    } else {
        traceJMSData(jmstracefile, kVarnelink, "GetJniSwitch_jms",
                     " got JMS JNI library entry point");
        pJNI_Switch = start();
        traceJMSExit(jmstracefile, kVarnelink, "GetJniSwitch_jms");
    }
    dlclose(library);
}

// Associates the thread with the transaction in Java. Returns Java's code, 0 for any failure
// once the broker has deployed, or -3 (XAER_RMERR) when Java cannot be reached.
int xa_start_entry_jms(XID *xid, int rmid, long flags) {
    xajms::trace::copyFromEnvironment(jmstracefile);
    xajms::trace::entryData(jmstracefile, kVarnelink, "xa_start_entry_jms", "rmid=%d ", rmid);
    if (xajms::trace::on(jmstracefile)) {
        traceJMSMsgFlags(jmstracefile, kVarnelink, "xa_start_entry_jms",
                         static_cast<unsigned long>(flags));
        traceJMSMsgFlags(jmstracefile, kVarnelink, "xa_start_entry_jms  flGotJNISwitch = ",
                         static_cast<unsigned long>(flGotJNISwitch_jms));
    }
    int rc = kXaerRmerr;
    if (flGotJNISwitch_jms == 0) {
        GetJNISwitch_jms();
        if (pJNI_Switch != nullptr) {
            deferredOpen(rmid, flags);
        }
    }
    if (pJNI_Switch != nullptr && pJNI_Switch->jniXAJMSStart != nullptr) {
        traceJMSData(jmstracefile, kVarnelink, "xa_start_entry_jms", "Broker JVM is available");
        rc = pJNI_Switch->jniXAJMSStart(xid, rmid, flags);
        xajms::trace::data(jmstracefile, kVarnelink, "xa_start_entry_jms",
                           "return code from jniXAJMSStart = %d", rc);
        if (rc != 0 && flBrokerHasDeployed_jms == 1) {
            rc = 0;
        }
    } else {
        traceJMSData(jmstracefile, kVarnelink, "xa_start_entry_jms", kNotAvailable);
    }
    XARCToStr_jms("XA_START", rc);
    xajms::trace::exitData(jmstracefile, kVarnelink, "xa_start_entry_jms",
                           "jniXAJMSStart_jms returned %d", rc);
    return rc;
}

// Ends the association in Java. Returns 100 (XA_RBROLLBACK) when Java reports a failure, and
// 0 (XA_OK) otherwise, also when Java cannot be reached.
int xa_end_entry_jms(XID *xid, int rmid, long flags) {
    if (xajms::trace::on(jmstracefile)) {
        xajms::trace::entryData(jmstracefile, kVarnelink, "xa_end_entry_jms", "rmid=%d ", rmid);
        traceJMSMsgFlags(jmstracefile, kVarnelink, "xa_end_entry_jms",
                         static_cast<unsigned long>(flags));
        traceJMSformattedXID(jmstracefile, kVarnelink, "xa_end_entry_jms", xid);
    }
    bool reachable = true;
    if (flGotJNISwitch_jms == 0) {
        GetJNISwitch_jms();
        if (pJNI_Switch == nullptr) {
            traceJMSData(jmstracefile, kVarnelink, "xa_end_entry_jms",
                         "could not obtain pJNI_Switch");
            reachable = false;
        }
    }
    if (reachable && pJNI_Switch != nullptr && pJNI_Switch->jniXAJMSEnd != nullptr) {
        traceJMSData(jmstracefile, kVarnelink, "xa_end_entry_jms", "about to call jniXAJMSEnd");
        const int rc = pJNI_Switch->jniXAJMSEnd(xid, rmid, flags);
        xajms::trace::data(jmstracefile, kVarnelink, "xa_end_entry_jms",
                           "jniXAJMSEnd_jms returned %d ", rc);
        if (rc != 0) {
            XARCToStr_jms("XA_END", 100);
            traceJMSExit(jmstracefile, kVarnelink, "xa_end_entry_jms");
            return XA_RBROLLBACK;
        }
    }
    XARCToStr_jms("XA_END", 0);
    traceJMSExit(jmstracefile, kVarnelink, "xa_end_entry_jms");
    return XA_OK;
}

}  // extern "C"
