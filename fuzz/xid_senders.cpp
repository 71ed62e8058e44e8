// Arbitrary XIDs, with the rmid and flags that follow them, through the XID dump of the
// trace and the four completion senders. No registry file exists, so every sender must give
// up with XAER_RMFAIL after its look-ups (whose sleeps cost nothing here).
#include <algorithm>
#include <cstring>

#include "common.h"

namespace fuzz = xajms::fuzz;

namespace {

constexpr char kPrefix[] = "/var/orlom/fuzz-trace.";

using Sender = int (*)(const XID *, int, long);
constexpr Sender kSenders[] = {sendXAPrepare_jms, sendXACommit_jms, sendXARollback_jms,
                               sendXAForget_jms};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::enterPrivateOrlom();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::discardTrace();
    std::span<const uint8_t> rest;
    const XID xid = fuzz::xidFrom({data, size}, rest);
    int rmid = 0;
    long flags = 0;
    std::memcpy(&rmid, rest.data(), std::min(rest.size(), sizeof rmid));
    rest = rest.subspan(std::min(rest.size(), sizeof rmid));
    std::memcpy(&flags, rest.data(), std::min(rest.size(), sizeof flags));
    traceJMSformattedXID(kPrefix, "XASocket", "fuzz", &xid);
    for (Sender send : kSenders) {
        if (send(&xid, rmid, flags) != XAER_RMFAIL) {
            fuzz::fail("a sender without a registry did not fail");
        }
    }
    return 0;
}
