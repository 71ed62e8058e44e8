// Recovery: the listener's list of prepared branches, one rmid at a time, resolved against the
// decision log. A branch is committed only when its decision is in the log; every other one
// was never decided, and presumed abort rolls it back.
#include "recover.h"

#include <xajms/xajms.h>

#include <set>
#include <string>
#include <vector>

#include "xa_names.h"

namespace xajms::eg_host {

namespace {

// More than the prepared transactions a PostgreSQL server allows by default.
constexpr long kMaxInDoubt = 1024;

std::vector<XID> inDoubt(int rmid) {
    std::vector<XID> xids(kMaxInDoubt);
    const int found =
        sendBrokerXARecover_jms(xids.data(), kMaxInDoubt, rmid, TMSTARTRSCAN | TMENDRSCAN);
    if (found < 0) {
        throw Failure("recover of rmid " + std::to_string(rmid) + " returned " +
                      drive::codeName(found) + ": its in-doubt branches are unknown");
    }
    xids.resize(static_cast<std::size_t>(found));
    return xids;
}

}  // namespace

long recoverBranches(const Host &host, std::FILE *out, bool quiet) {
    const std::set<std::string> decided = host.log->decided();
    long resolved = 0;
    std::string failed;
    for (const int rmid : host.rmids) {
        for (XID &xid : inDoubt(rmid)) {
            const std::string gtrid(xid.data, static_cast<std::size_t>(xid.gtrid_length));
            const bool commit = decided.count(gtrid) != 0;
            const int rc = commit ? host.sw->xa_commit_entry(&xid, rmid, TMNOFLAGS)
                                  : host.sw->xa_rollback_entry(&xid, rmid, TMNOFLAGS);
            std::fprintf(out, "recover: rmid %d xid %s %s -> %s\n", rmid, xidText(xid).c_str(),
                         commit ? "committed (decision recorded)" : "rolled back (no decision)",
                         drive::codeName(rc).c_str());
            if (rc != XA_OK && failed.empty()) {
                failed = std::string(commit ? "xa_commit" : "xa_rollback") + " of rmid " +
                         std::to_string(rmid) + " returned " + drive::codeName(rc);
            }
            ++resolved;
        }
    }
    if (!failed.empty()) {
        throw Failure("recovery: " + failed + "; the decision log is kept for the next start");
    }
    if (!host.log->clear()) {
        throw Failure("recovery: cannot empty the decision log " + host.log->path());
    }
    if (resolved > 0 || !quiet) {
        std::fprintf(out, "recover: %ld in-doubt branch%s resolved\n", resolved,
                     resolved == 1 ? "" : "es");
    }
    std::fflush(out);
    return resolved;
}

long listInDoubt(const Host &host, std::FILE *out) {
    const std::set<std::string> decided = host.log->decided();
    long listed = 0;
    for (const int rmid : host.rmids) {
        for (const XID &xid : inDoubt(rmid)) {
            const std::string gtrid(xid.data, static_cast<std::size_t>(xid.gtrid_length));
            std::fprintf(out, "in doubt: rmid %d xid %s %s\n", rmid, xidText(xid).c_str(),
                         decided.count(gtrid) != 0 ? "decision recorded: recovery commits it"
                                                   : "no decision: recovery rolls it back");
            ++listed;
        }
    }
    std::fprintf(out, "in doubt: %ld branch%s\n", listed, listed == 1 ? "" : "es");
    std::fflush(out);
    return listed;
}

}  // namespace xajms::eg_host
