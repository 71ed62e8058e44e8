// The recover entry. While a broker or pending listener is registered it asks the listeners
// for their in-doubt work; it always tells the coordinator that nothing is in doubt, since
// in-doubt work is recovered by the broker's own start. A hardened process runs a recovery
// scan over the XIDs that the listeners report instead.
#include "switch/switch.h"

#include "pool/pool.h"
#include "protocol/protocol.h"
#include "trace/trace.h"

namespace {

using xajms::trace::kVarnelink;

constexpr char kRecover[] = "xa_recover_entry_jms";

// Looks up the open string stored for the rmid and traces it. Returns true when found.
bool tracedOpenString(int rmid) {
    const xajms::switch_::OpenTableGuard guard;
    if (pRmidOpenstrTable == nullptr) {
        return false;
    }
    traceJMSData(jmstracefile, kVarnelink, kRecover, "Check Storing Openstring in temporary cache");
    const RmidOpenstrEntry *entry = xajms::switch_::openRecord(rmid);
    if (entry == nullptr || entry->rmid != static_cast<uint32_t>(rmid)) {
        return false;
    }
    char rmidText[8];
    intToAlpha_jms(rmid, rmidText);
    char openstring[sizeof entry->openstring + 1];
    xajms::switch_::copyOpenString(*entry, openstring);
    xajms::trace::data(jmstracefile, kVarnelink, kRecover, " found openstring %s for rmid %d",
                       openstring, rmid);
    return true;
}

// Where the calling thread's recovery scan stands: how many XIDs it has handed out, or -1
// while no scan is open. A scan belongs to the thread that started it.
thread_local long scanPosition = -1;

// Hardened recover: a scan over the distinct XIDs that the listeners report, in listener
// order. TMSTARTRSCAN opens a scan at the first XID (closing any open one); each call then
// hands out the next XIDs, at most count; TMENDRSCAN closes the scan after the call (both
// flags: one call from the start). A call that fails closes the scan. Returns the number of
// XIDs stored (fewer than count: the scan has reached the end), XAER_RMFAIL when a listener
// could not be asked, XAER_INVAL for other flags, a negative count, a null array with a
// positive count, or a call without TMSTARTRSCAN while no scan is open.
int recoverScan(XID *xids, long count, int rmid, long flags) {
    const long scanFlags = TMSTARTRSCAN | TMENDRSCAN;
    const bool starts = (flags & TMSTARTRSCAN) != 0;
    int rc = XAER_INVAL;
    if ((flags & ~scanFlags) == 0 && count >= 0 && (xids != nullptr || count == 0) &&
        (starts || scanPosition >= 0)) {
        traceJMSData(jmstracefile, kVarnelink, kRecover, "calling sendBrokerXARecover");
        const long skip = starts ? 0 : scanPosition;
        rc = xajms::protocol::collectXids(xids, count, skip, rmid, flags);
        xajms::trace::data(jmstracefile, kVarnelink, kRecover,
                           " sendBrokerXARecover_jms returned rc = %d, count = %d ", rc,
                           static_cast<int>(count));
        scanPosition = rc >= 0 ? skip + rc : -1;
    }
    if (rc < 0 || (flags & TMENDRSCAN) != 0) {
        scanPosition = -1;
    }
    XARCToStr_jms("XA_RECOVER", rc);
    traceJMSExit(jmstracefile, kVarnelink, kRecover);
    return rc;
}

}  // namespace

extern "C" {

// Returns 0 on every path: the coordinator is told that no XIDs are in doubt. A hardened
// process hands out the listeners' XIDs instead (recoverScan).
int xa_recover_entry_jms(XID *xids, long count, int rmid, long flags) {
    if (xajms::trace::on(jmstracefile)) {
        xajms::trace::entryData(jmstracefile, kVarnelink, "xa_recover_jms", "rmid=%d ", rmid);
        traceJMSMsgFlags(jmstracefile, kVarnelink, "xa_recover_jms",
                         static_cast<unsigned long>(flags));
    }
    intClearedConnectionPool_jms = 0;
    if (xajms::pool::hardened()) {
        return recoverScan(xids, count, rmid, flags);
    }
    if (CheckForBroker_jms(GetSharedMemory_jms()) > 0 || CheckForPendingSlot_jms() > 0) {
        traceJMSData(jmstracefile, kVarnelink, kRecover, "calling sendBrokerXARecover");
        const int rc = sendBrokerXARecover_jms(xids, count, rmid, flags);
        xajms::trace::data(jmstracefile, kVarnelink, kRecover,
                           " sendBrokerXARecover_jms returned rc = %d, count = %d ", rc,
                           static_cast<int>(count));
    } else {
        traceJMSData(jmstracefile, kVarnelink, kRecover,
                     "Setting parms for calling xarecovery Main");
        if (!tracedOpenString(rmid)) {
            xajms::trace::data(jmstracefile, kVarnelink, kRecover,
                               " no openstring data for rmid %d", rmid);
            XARCToStr_jms("XA_RECOVER", XAER_RMFAIL);
            traceJMSExit(jmstracefile, kVarnelink, kRecover);
            traceJMSData(jmstracefile, kVarnelink, kRecover, "UNIX return XA_OK");
            return XA_OK;
        }
    }
    traceJMSData(jmstracefile, kVarnelink, kRecover, "UNIX __ return XA_OK");
    traceJMSData(jmstracefile, kVarnelink, kRecover,
                 "QMGR startup will delegate to recovery at broker startup");
    XARCToStr_jms("XA_RECOVER", XA_OK);
    traceJMSExit(jmstracefile, kVarnelink, kRecover);
    return XA_OK;
}

}  // extern "C"
