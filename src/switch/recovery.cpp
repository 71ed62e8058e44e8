// The recover entry. While a broker or pending listener is registered it asks the listeners
// for their in-doubt work; it always tells the coordinator that nothing is in doubt, since
// in-doubt work is recovered by the broker's own start.
#include "switch/switch.h"

#include "trace/trace.h"

namespace {

using xajms::trace::kVarnelink;

constexpr char kRecover[] = "xa_recover_entry_jms";

// Looks up the open string stored for the rmid and traces it. Returns true when found.
bool tracedOpenString(int rmid) {
    if (pRmidOpenstrTable == nullptr) {
        return false;
    }
    traceJMSData(jmstracefile, kVarnelink, kRecover, "Check Storing Openstring in temporary cache");
    for (int i = 0; i < xajms::switch_::kOpenTableSize; ++i) {
        const RmidOpenstrEntry &entry = pRmidOpenstrTable[i];
        if (entry.rmid == static_cast<uint32_t>(rmid)) {
            char rmidText[8];
            intToAlpha_jms(rmid, rmidText);
            char openstring[sizeof entry.openstring + 1];
            xajms::switch_::copyOpenString(entry, openstring);
            xajms::trace::data(jmstracefile, kVarnelink, kRecover,
                               " found openstring %s for rmid %d", openstring, rmid);
            return true;
        }
        if (entry.rmid == xajms::switch_::kEmptyRmid) {
            return false;
        }
    }
    return false;
}

}  // namespace

extern "C" {

// Returns 0 on every path: the coordinator is told that no XIDs are in doubt.
int xa_recover_entry_jms(XID *xids, long count, int rmid, long flags) {
    if (xajms::trace::on(jmstracefile)) {
        xajms::trace::entryData(jmstracefile, kVarnelink, "xa_recover_jms", "rmid=%d ", rmid);
        traceJMSMsgFlags(jmstracefile, kVarnelink, "xa_recover_jms",
                         static_cast<unsigned long>(flags));
    }
    intClearedConnectionPool_jms = 0;
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
