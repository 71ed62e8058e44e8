// The open and close entries. A queue-manager process only remembers each rmid's open string
// in the open table, for a later deferred open in Java; a broker process opens in Java at
// once. The first open and the last close of a process empty the connection pool.
#include "switch/switch.h"

#include <pthread.h>
#include <cstdlib>
#include <cstring>

#include "trace/trace.h"

namespace {

using xajms::switch_::kEmptyRmid;
using xajms::switch_::kOpenTableSize;
using xajms::trace::kVarnelink;

constexpr char kOpen[] = "xa_open_entry_jms";
constexpr int kXaerRmerr = -3;

pthread_mutex_t openTableLock = PTHREAD_MUTEX_INITIALIZER;

// Closes every pooled connection of the process under the pool lock.
void clearPool() {
    lockConnectionPool_jms();
    poolClear_jms(-1);
    unlockConnectionPool_jms();
}

// Allocates the open table in one piece, every record empty, and installs it. The caller
// holds the open-table guard, so that threads opening at once install one table between
// them. Returns false when memory is short.
bool createTable() {
    auto *table = static_cast<RmidOpenstrEntry *>(
        std::calloc(static_cast<size_t>(kOpenTableSize), sizeof(RmidOpenstrEntry)));
    if (table == nullptr) {
        return false;
    }
    for (int i = 0; i < kOpenTableSize; ++i) {
        table[i].rmid = kEmptyRmid;
        std::memcpy(table[i].openstring, " ", 2);
    }
    pRmidOpenstrTable = table;
    return true;
}

// Ends the open with a failure code: the reason, the code by name, the exit line.
int refuse(const char *reason) {
    traceJMSData(jmstracefile, kVarnelink, kOpen, reason);
    XARCToStr_jms("XA_OPEN", kXaerRmerr);
    traceJMSExit(jmstracefile, kVarnelink, kOpen);
    return kXaerRmerr;
}

// Remembers the open string of the rmid; the first string stored for an rmid is kept. A
// table whose 500 records all hold other rmids refuses the open with -3 (XAER_RMERR).
int storeOpenString(const char *openstring, int rmid) {
    traceJMSData(jmstracefile, kVarnelink, kOpen,
                 "Not Broker Process so save the rmid and openstring");
    const xajms::switch_::OpenTableGuard guard;
    if (pRmidOpenstrTable == nullptr && !createTable()) {
        return refuse("Unable to allocate space for rmid to openstring table");
    }
    RmidOpenstrEntry *found = xajms::switch_::openRecord(rmid);
    if (found == nullptr) {
        return refuse("Unable to store openstring - rmid to openstring table is full");
    }
    RmidOpenstrEntry &entry = *found;
    if (entry.rmid == static_cast<uint32_t>(rmid)) {
        xajms::trace::data(jmstracefile, kVarnelink, kOpen,
                           "xa_open_entry found existing slot for rmid %d", rmid);
    } else {
        entry.rmid = static_cast<uint32_t>(rmid);
        // As strncpy does: up to 256 characters, zero-padded, no terminator when it is full.
        const size_t length = strnlen(openstring, sizeof entry.openstring);
        std::memcpy(entry.openstring, openstring, length);
        std::memset(entry.openstring + length, 0, sizeof entry.openstring - length);
        if (xajms::trace::on(jmstracefile)) {
            xajms::trace::data(jmstracefile, kVarnelink, kOpen, "rmstr = %s  stored rmid=%d",
                               openstring, static_cast<int>(entry.rmid));
            char stored[sizeof entry.openstring + 1];
            xajms::switch_::copyOpenString(entry, stored);
            xajms::trace::data(jmstracefile, kVarnelink, kOpen, "stored openstring %s", stored);
        }
    }
    traceJMSExit(jmstracefile, kVarnelink, kOpen);
    XARCToStr_jms("XA_OPEN", XA_OK);
    return XA_OK;
}

// Opens the resource manager in Java. Returns Java's code, 0 for a failure once the broker
// has deployed, or -3 (XAER_RMERR) when Java cannot be reached.
int openInJava(char *openstring, int rmid, long flags) {
    if (flGotJNISwitch_jms == 0) {
        GetJNISwitch_jms();
    }
    traceJMSData(jmstracefile, kVarnelink, kOpen, "Broker is up issuing call via JNI");
    int rc = xajms::switch_::javaOpen(openstring, rmid, flags);
    if (rc != 0 && flBrokerHasDeployed_jms == 1) {
        rc = 0;
    }
    xajms::trace::data(jmstracefile, kVarnelink, kOpen, "jniXAJMSOpen returned %d", rc);
    XARCToStr_jms("XA_OPEN", rc);
    traceJMSExit(jmstracefile, kVarnelink, kOpen);
    return rc;
}

}  // namespace

namespace xajms::switch_ {

OpenTableGuard::OpenTableGuard() {
    pthread_mutex_lock(&openTableLock);
}

OpenTableGuard::~OpenTableGuard() {
    pthread_mutex_unlock(&openTableLock);
}

RmidOpenstrEntry *openRecord(int rmid) {
    for (int i = 0; i < kOpenTableSize; ++i) {
        RmidOpenstrEntry &entry = pRmidOpenstrTable[i];
        if (entry.rmid == static_cast<uint32_t>(rmid) || entry.rmid == kEmptyRmid) {
            return &entry;
        }
    }
    return nullptr;
}

void freeOpenTableIfIdle() {
    if (pthread_mutex_trylock(&openTableLock) != 0) {
        return;
    }
    std::free(pRmidOpenstrTable);
    pRmidOpenstrTable = nullptr;
    pthread_mutex_unlock(&openTableLock);
}

}  // namespace xajms::switch_

extern "C" {

// Counts the open, empties the pool on the first open of the process, and either remembers
// the open string (queue-manager process) or opens in Java (broker process). A null open
// string is taken as empty.
int xa_open_entry_jms(char *openstring, int rmid, long flags) {
    if (!xajms::trace::on(jmstracefile)) {
        xajms::trace::copyFromEnvironment(jmstracefile);
    }
    traceJMSEntry(jmstracefile, kVarnelink, kOpen);
    char empty[1] = {'\0'};
    char *text = openstring != nullptr ? openstring : empty;
    int opens = 0;
    bool first = false;
    {
        const xajms::switch_::OpenTableGuard guard;
        opens = intXAOpen_jms += 1;
        first = intClearedConnectionPool_jms == 0 && opens == 1;
        if (first) {
            intClearedConnectionPool_jms = 1;
        }
    }
    if (xajms::trace::on(jmstracefile)) {
        xajms::trace::data(jmstracefile, kVarnelink, kOpen,
                           "Open string=%s, rmid=%d, number of opens this process=%d", text, rmid,
                           opens);
        traceJMSMsgFlags(jmstracefile, kVarnelink, kOpen, static_cast<unsigned long>(flags));
    }
    if (first) {
        clearPool();
    }
    if (!xajms::switch_::isBrokerProcess()) {
        return storeOpenString(text, rmid);
    }
    return openInJava(text, rmid, flags);
}

// Counts the close down; the last one frees the open table and empties the pool. Always
// returns 0 (XA_OK) and sends nothing to a listener.
int xa_close_entry_jms(char * /*openstring*/, int rmid, long flags) {
    traceJMSEntry(jmstracefile, kVarnelink, "xa_close_entry_jms");
    if (xajms::trace::on(jmstracefile)) {
        xajms::trace::data(jmstracefile, kVarnelink, "xa_close_entry_jms", "rmid=%d", rmid);
        traceJMSMsgFlags(jmstracefile, kVarnelink, "xa_close_entry_jms",
                         static_cast<unsigned long>(flags));
    }
    bool last = false;
    {
        const xajms::switch_::OpenTableGuard guard;
        if (intXAOpen_jms > 0) {
            intXAOpen_jms -= 1;
        }
        last = intXAOpen_jms == 0;
        if (last) {
            std::free(pRmidOpenstrTable);
            pRmidOpenstrTable = nullptr;
        }
    }
    if (last) {
        clearPool();
        XARCToStr_jms("XA_CLOSE", XA_OK);
    }
    traceJMSExit(jmstracefile, kVarnelink, "xa_close_entry_jms");
    return XA_OK;
}

}  // extern "C"
