// The outcomes of the completion requests, with PostgreSQL's two-phase commit as the
// resource: prepare, commit and rollback of the branches of this process, and of branches
// that an earlier process of the group prepared, found by their gid. A branch the group does
// not hold is never reported as prepared: its work is gone.
#include "eg.h"

namespace xajms::eg {

namespace {

// A connection of the rmid for one request, given back when the lease ends.
class Lease {
  public:
    explicit Lease(int rmid) : c_(acquire(rmid, nullptr, taken_)) {}
    ~Lease() {
        if (c_ != nullptr) {
            release(c_);
        }
    }
    Lease(const Lease &) = delete;
    Lease &operator=(const Lease &) = delete;
    PGconn *pg() const { return c_ != nullptr ? c_->pg : nullptr; }
    Taken taken() const { return taken_; }

  private:
    Taken taken_ = Taken::ok;
    Connection *c_;
};

// The vote for a transaction that PostgreSQL refused to prepare or commit, and so rolled back.
int rollbackVote(const std::string &state) {
    if (state.starts_with("23")) {
        return XA_RBINTEGRITY;
    }
    return state == "40P01" ? XA_RBDEADLOCK : XA_RBROLLBACK;
}

// Runs ROLLBACK on the branch's connection and retires it. Returns the vote given.
int abandon(Branch &b, int vote) {
    if (b.conn != nullptr && PQstatus(b.conn->pg) == CONNECTION_OK &&
        PQtransactionStatus(b.conn->pg) != PQTRANS_IDLE) {
        run(b.conn->pg, "ROLLBACK");
    }
    retireBranch(b);
    return vote;
}

// COMMIT PREPARED or ROLLBACK PREPARED of a gid, on any connection of the rmid. Returns XA_OK,
// XAER_NOTA when PostgreSQL holds no such prepared transaction (or the rmid is not open
// here), XAER_RMFAIL when the database cannot be reached, XAER_RMERR for another refusal.
int finishPrepared(const char *verb, const std::string &gid, int rmid) {
    Lease lease(rmid);
    if (lease.pg() == nullptr) {
        return lease.taken() == Taken::unknownRmid ? XAER_NOTA : XAER_RMFAIL;
    }
    const std::string sql = std::string(verb) + " '" + gid + "'";
    const Reply r = run(lease.pg(), sql.c_str());
    if (r.ended == Ended::done) {
        return XA_OK;
    }
    if (r.ended == Ended::lost) {
        return XAER_RMFAIL;
    }
    return r.state == "42704" ? XAER_NOTA : XAER_RMERR;
}

// Prepare of a branch the process does not hold: the code of an earlier prepare that ended
// it (read-only, or a rollback vote), XA_OK when an earlier prepare reached PostgreSQL,
// XAER_RMFAIL when that cannot be known, else XA_RBROLLBACK.
int prepareUnknown(const std::string &gid, int rmid) {
    if (const auto code = rememberedEnding(Ending::prepare, gid)) {
        return *code;
    }
    Lease lease(rmid);
    if (lease.pg() == nullptr) {
        return lease.taken() == Taken::unknownRmid ? XA_RBROLLBACK : XAER_RMFAIL;
    }
    const Reply r = run(lease.pg(),
                        "SELECT 1 FROM pg_prepared_xacts WHERE gid = $1 AND database = "
                        "current_database()",
                        {gid});
    if (r.ended != Ended::done) {
        return XAER_RMFAIL;
    }
    return PQntuples(r.result.get()) > 0 ? XA_OK : XA_RBROLLBACK;
}

// Prepares an ended branch. The read-only test and the PREPARE go to the server in one round
// trip; a branch that wrote nothing is then committed at once (XA_RDONLY). A transaction that
// PostgreSQL has aborted, or aborts instead of preparing, votes rollback. Returns XAER_RMFAIL
// only when the PREPARE may have run and its end is unknown.
int prepareIdle(Branch &b) {
    PGconn *pg = b.conn->pg;
    if (PQtransactionStatus(pg) != PQTRANS_INTRANS) {
        return abandon(b, PQstatus(pg) == CONNECTION_OK ? XA_RBROLLBACK : XA_RBCOMMFAIL);
    }
    const Series s = runSeries(
        pg, "SELECT pg_current_xact_id_if_assigned() IS NULL; PREPARE TRANSACTION '" + b.gid + "'");
    // A string that could not be sent, or whose test the server refused (even with its last
    // word before closing), never ran its PREPARE.
    const bool testRefused =
        !s.replies.empty() && s.replies[0].ended != Ended::done && !s.replies[0].state.empty();
    if (!s.sent || testRefused) {
        return abandon(b, PQstatus(pg) == CONNECTION_OK ? XA_RBROLLBACK : XA_RBCOMMFAIL);
    }
    if (s.replies.size() < 2 || s.replies[0].ended != Ended::done) {
        return abandon(b, XAER_RMFAIL);
    }
    const bool readOnly = PQntuples(s.replies[0].result.get()) == 1 &&
                          PQgetvalue(s.replies[0].result.get(), 0, 0)[0] == 't';
    const Reply &r = s.replies[1];
    if (r.ended == Ended::done && r.tag == "PREPARE TRANSACTION") {
        if (readOnly && run(pg, ("COMMIT PREPARED '" + b.gid + "'").c_str()).ended == Ended::done) {
            return abandon(b, XA_RDONLY);
        }
        // A read-only branch whose COMMIT PREPARED did not end so stays prepared for the
        // coordinator's commit or rollback, which are the same for it.
        b.state = BranchState::prepared;
        release(b.conn);
        b.conn = nullptr;
        return XA_OK;
    }
    if (r.ended == Ended::lost) {
        return abandon(b, XAER_RMFAIL);
    }
    // PREPARE of an aborted transaction answers with the tag ROLLBACK and no error.
    return abandon(b, r.ended == Ended::refused ? rollbackVote(r.state) : XA_RBROLLBACK);
}

// One-phase commit of an ended branch: XA_OK, a rollback vote, or XAER_RMFAIL when the
// connection broke during COMMIT.
int commitIdle(Branch &b) {
    if (PQtransactionStatus(b.conn->pg) != PQTRANS_INTRANS) {
        return abandon(b, XA_RBROLLBACK);
    }
    const Reply r = run(b.conn->pg, "COMMIT");
    if (r.ended == Ended::done) {
        return abandon(b, r.tag == "COMMIT" ? XA_OK : XA_RBROLLBACK);
    }
    return abandon(b, r.ended == Ended::lost ? XAER_RMFAIL : rollbackVote(r.state));
}

// A branch that is still associated with a thread, or suspended, cannot be completed.
bool associatedOrSuspended(const Branch &b) {
    return b.state == BranchState::active || b.state == BranchState::suspended;
}

// The branch a request names, its mutex held while the request runs on it.
struct Held {
    Held(const XID &xid, int rmid) : gid(encodeGid(xid, group(), rmid)), rmid_(rmid) {
        b = gid.empty() ? nullptr : findBranch(gid);
        if (b != nullptr) {
            lock = std::unique_lock<std::mutex>(b->m);
        }
    }
    // Whether the process holds the branch: known, and not completed meanwhile.
    bool held() const { return b != nullptr && !b->removed; }
    // COMMIT PREPARED or ROLLBACK PREPARED of the held, prepared branch; retired once
    // PostgreSQL no longer holds it.
    int finish(const char *verb) {
        const int rc = finishPrepared(verb, gid, rmid_);
        if (rc == XA_OK || rc == XAER_NOTA) {
            retireBranch(*b);
        }
        return rc;
    }

    const std::string gid;
    std::shared_ptr<Branch> b;
    std::unique_lock<std::mutex> lock;

  private:
    int rmid_;
};

}  // namespace

int prepareBranch(const XID &xid, int rmid) {
    Held h(xid, rmid);
    if (h.gid.empty()) {
        return XAER_INVAL;
    }
    if (!h.held()) {
        return prepareUnknown(h.gid, rmid);
    }
    switch (h.b->state) {
        case BranchState::idle: {
            const int rc = prepareIdle(*h.b);
            if (rc == XA_RDONLY || rc >= XA_RBBASE) {
                rememberEnding(Ending::prepare, h.gid, rc);
            }
            return rc;
        }
        case BranchState::failed:
            return abandon(*h.b, XA_RBROLLBACK);
        case BranchState::prepared:
            return XA_OK;
        default:
            return XAER_PROTO;
    }
}

// Commit: one-phase of an ended branch, or COMMIT PREPARED. A one-phase commit of a branch
// the process does not hold answers as the one-phase commit that ended it did, else votes
// rollback: its work is gone.
int commitBranch(const XID &xid, int rmid, bool onePhase) {
    Held h(xid, rmid);
    if (h.gid.empty()) {
        return XAER_INVAL;
    }
    if (!h.held() && onePhase) {
        return rememberedEnding(Ending::onePhaseCommit, h.gid).value_or(XA_RBROLLBACK);
    }
    if (!h.held()) {
        return finishPrepared("COMMIT PREPARED", h.gid, rmid);
    }
    if (associatedOrSuspended(*h.b) || onePhase != (h.b->state != BranchState::prepared)) {
        return XAER_PROTO;
    }
    if (h.b->state == BranchState::failed) {
        return abandon(*h.b, XA_RBROLLBACK);
    }
    if (!onePhase) {
        return h.finish("COMMIT PREPARED");
    }
    const int rc = commitIdle(*h.b);
    rememberEnding(Ending::onePhaseCommit, h.gid, rc);
    return rc;
}

// Rollback: ROLLBACK of an ended branch (XA_OK also when its connection is gone, since the
// server has then aborted it), ROLLBACK PREPARED of a prepared one.
int rollbackBranch(const XID &xid, int rmid) {
    Held h(xid, rmid);
    if (h.gid.empty()) {
        return XAER_INVAL;
    }
    if (!h.held()) {
        return finishPrepared("ROLLBACK PREPARED", h.gid, rmid);
    }
    if (associatedOrSuspended(*h.b)) {
        return XAER_PROTO;
    }
    return h.b->state == BranchState::prepared ? h.finish("ROLLBACK PREPARED")
                                               : abandon(*h.b, XA_OK);
}

bool recoverBranches(int rmid, std::vector<listener::XidParts> &out) {
    Lease lease(rmid);
    if (lease.pg() == nullptr) {
        return lease.taken() == Taken::unknownRmid;
    }
    const Reply r = run(lease.pg(),
                        "SELECT gid FROM pg_prepared_xacts WHERE database = current_database() "
                        "AND starts_with(gid, $1) ORDER BY prepared",
                        {gidPrefix(group(), rmid)});
    if (r.ended != Ended::done) {
        return false;
    }
    for (int i = 0; i < PQntuples(r.result.get()); ++i) {
        const auto parts = decodeGid(PQgetvalue(r.result.get(), i, 0));
        if (!parts) {
            continue;
        }
        const auto *data = reinterpret_cast<const std::uint8_t *>(parts->xid.data);
        const auto g = static_cast<std::size_t>(parts->xid.gtrid_length);
        const auto q = static_cast<std::size_t>(parts->xid.bqual_length);
        out.push_back(
            listener::XidParts{parts->xid.formatID, {data, data + g}, {data + g, data + g + q}});
    }
    return true;
}

}  // namespace xajms::eg
