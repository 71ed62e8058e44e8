// Any XID, rmid and flags through the trace's XID dump and the four completion senders. With
// no registry file every sender gives up with XAER_RMFAIL after its look-ups.
#include "common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    xajms::fuzz::reset();
    std::span<const uint8_t> in{data, size};
    const XID xid = xajms::fuzz::take<XID>(in);
    const int rmid = xajms::fuzz::take<int>(in);
    const long flags = xajms::fuzz::take<long>(in);
    traceJMSformattedXID(xajms::fuzz::kTracePrefix, "XASocket", "fuzz", &xid);
    for (auto send : {sendXAPrepare_jms, sendXACommit_jms, sendXARollback_jms, sendXAForget_jms}) {
        xajms::fuzz::check(send(&xid, rmid, flags) == XAER_RMFAIL,
                           "a sender without a registry did not fail");
    }
    return 0;
}
