// Arbitrary XIDs, with the rmid and flags that follow them, through the XID dump of the
// trace and the four completion senders. No registry file exists, so every sender must give
// up with XAER_RMFAIL after its look-ups (whose sleeps cost nothing here).
#include "common.h"

namespace fuzz = xajms::fuzz;

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::enterPrivateOrlom();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::discardTrace();
    std::span<const uint8_t> in{data, size};
    XID xid{};
    int rmid = 0;
    long flags = 0;
    fuzz::take(in, xid);
    fuzz::take(in, rmid);
    fuzz::take(in, flags);
    traceJMSformattedXID(fuzz::kTracePrefix, "XASocket", "fuzz", &xid);
    for (auto send : {sendXAPrepare_jms, sendXACommit_jms, sendXARollback_jms, sendXAForget_jms}) {
        if (send(&xid, rmid, flags) != XAER_RMFAIL) {
            fuzz::fail("a sender without a registry did not fail");
        }
    }
    return 0;
}
