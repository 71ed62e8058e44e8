// The completion entries: prepare, commit, rollback and forget forward the call to the
// execution groups' listeners and map the combined answer to the code the coordinator gets;
// complete is not supported.
#include "switch/switch.h"

#include "trace/trace.h"

namespace {

using xajms::trace::kVarnelink;

using Sender = int (*)(const XID *, int, long);

// How one completion entry traces, sends and maps.
struct Completion {
    const char *entryLiteral;  // function literal of the entry line
    const char *literal;       // function literal of every later line
    const char *callName;      // call name of the return-code line
    Sender sender;
    void (*traceSent)(const char *literal, int rc);  // data line with the sender's result
    int rmerrBecomes;  // what XAER_RMERR from the sender is reported as
    bool rcOnExit;     // exit line with " rc =  %d", else a plain exit line
};

// The listener's code as the coordinator gets it: XAER_NOTA means the transaction is already
// finished (XA_OK), XAER_PROTO becomes XAER_RMFAIL, XAER_RMERR as the entry says.
int mapped(const Completion &entry, int rc) {
    switch (rc) {
        case XAER_RMERR:
            return entry.rmerrBecomes;
        case XAER_NOTA:
            return XA_OK;
        case XAER_PROTO:
            return XAER_RMFAIL;
        default:
            return rc;
    }
}

int complete(const Completion &entry, XID *xid, int rmid, long flags) {
    if (xajms::trace::on(jmstracefile)) {
        xajms::trace::entryData(jmstracefile, kVarnelink, entry.entryLiteral, "rmid=%d ", rmid);
        traceJMSMsgFlags(jmstracefile, kVarnelink, entry.literal,
                         static_cast<unsigned long>(flags));
        traceJMSformattedXID(jmstracefile, kVarnelink, entry.literal, xid);
    }
    const int rc = entry.sender(xid, rmid, flags);
    if (xajms::trace::on(jmstracefile)) {
        entry.traceSent(entry.literal, rc);
    }
    const int result = mapped(entry, rc);
    XARCToStr_jms(entry.callName, result);
    if (entry.rcOnExit) {
        xajms::trace::exitData(jmstracefile, kVarnelink, entry.literal, " rc =  %d", result);
    } else {
        traceJMSExit(jmstracefile, kVarnelink, entry.literal);
    }
    return result;
}

constexpr Completion kPrepare{"xa_prepare_entry_jms",
                              "xa_prepare_entry_jms",
                              "XA_PREPARE",
                              sendXAPrepare_jms,
                              [](const char *literal, int rc) {
                                  xajms::trace::data(jmstracefile, kVarnelink, literal,
                                                     " sendXAPrepare_jms returned %d", rc);
                              },
                              XAER_RMERR,
                              true};
constexpr Completion kCommit{"xa_commit_entry_jms",
                             "xa_commit_entry_jms",
                             "XA_COMMIT",
                             sendXACommit_jms,
                             [](const char *literal, int rc) {
                                 xajms::trace::data(jmstracefile, kVarnelink, literal,
                                                    " sendXACommit_jms returned %d", rc);
                             },
                             XAER_RMFAIL,
                             true};
// The later lines of rollback carry the literal "xa_rollack_entry_jms", so spelled.
constexpr Completion kRollback{"xa_rollback_entry_jms",
                               "xa_rollack_entry_jms",
                               "XA_ROLLBACK",
                               sendXARollback_jms,
                               [](const char *literal, int rc) {
                                   xajms::trace::data(jmstracefile, kVarnelink, literal,
                                                      " sendXARollback_jms returned %d", rc);
                               },
                               XAER_RMFAIL,
                               true};
constexpr Completion kForget{"xa_forget_entry_jms",
                             "xa_forget_entry_jms",
                             "XA_FORGET",
                             sendXAForget_jms,
                             [](const char *literal, int rc) {
                                 xajms::trace::data(jmstracefile, kVarnelink, literal,
                                                    " sendXAForget returned rc = %d", rc);
                             },
                             XAER_RMFAIL,
                             false};

}  // namespace

extern "C" {

// Prepare also records that the broker has deployed and that the pool may be emptied again
// by the next first open.
int xa_prepare_entry_jms(XID *xid, int rmid, long flags) {
    intClearedConnectionPool_jms = 0;
    flBrokerHasDeployed_jms = 1;
    return complete(kPrepare, xid, rmid, flags);
}

int xa_commit_entry_jms(XID *xid, int rmid, long flags) {
    return complete(kCommit, xid, rmid, flags);
}

int xa_rollback_entry_jms(XID *xid, int rmid, long flags) {
    xajms::trace::copyFromEnvironment(jmstracefile);
    return complete(kRollback, xid, rmid, flags);
}

int xa_forget_entry_jms(XID *xid, int rmid, long flags) {
    return complete(kForget, xid, rmid, flags);
}

// Asynchronous completion is not supported: always -7 (XAER_RMFAIL).
int xa_complete_entry_jms(int * /*handle*/, int * /*retval*/, int rmid, long flags) {
    if (xajms::trace::on(jmstracefile)) {
        xajms::trace::entryData(jmstracefile, kVarnelink, "xa_complete_entry_jms", "rmid=%d ",
                                rmid);
        traceJMSMsgFlags(jmstracefile, kVarnelink, "xa_complete_entry_jms",
                         static_cast<unsigned long>(flags));
        traceJMSData(jmstracefile, kVarnelink, "xa_complete_entry_jms",
                     "This call is not supported");
    }
    XARCToStr_jms("XA_COMPLETE", XAER_RMFAIL);
    traceJMSExit(jmstracefile, kVarnelink, "xa_complete_entry_jms");
    return XAER_RMFAIL;
}

}  // extern "C"
