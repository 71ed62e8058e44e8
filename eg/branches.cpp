// The branch table: the XA association of threads with branches. A start begins a
// transaction on a connection of the rmid (the thread's own when it is free) and the branch
// keeps that connection until its outcome; end, suspend, join and resume move the branch
// between threads. One thread at a time is associated with a branch.
#include "eg.h"

#include <deque>
#include <map>

namespace xajms::eg {

namespace {

constexpr long kStartFlags = TMJOIN | TMRESUME;
constexpr long kEndFlags = TMSUCCESS | TMFAIL | TMSUSPEND;

// The branches of the process by gid. Never destroyed, as the listener's threads may still
// use it while the process exits.
struct Table {
    std::mutex m;
    std::map<std::string, std::shared_ptr<Branch>> byGid;
};

Table &table() {
    static Table *const branches = new Table;
    return *branches;
}

// The codes that ended recent branches, oldest first. Never destroyed, as the table.
struct Endings {
    std::mutex m;
    std::map<std::pair<Ending, std::string>, int> codes;
    std::deque<std::pair<Ending, std::string>> order;
};

Endings &endings() {
    static Endings *const recent = new Endings;
    return *recent;
}

constexpr std::size_t kRememberedEndings = 4096;

// The calling thread's associated branch and own connection, per rmid.
thread_local std::map<int, std::shared_ptr<Branch>> associated;
thread_local std::map<int, Connection *> own;

// Creates the branch and begins its transaction. Returns XA_OK, XAER_DUPID for a gid in the
// table, XAER_RMFAIL when the database cannot be reached, XAER_RMERR when BEGIN fails.
int beginBranch(const std::string &gid, int rmid) {
    Taken taken = Taken::ok;
    Connection *c = acquire(rmid, own[rmid], taken);
    if (c == nullptr) {
        return taken == Taken::unknownRmid ? XAER_PROTO : XAER_RMFAIL;
    }
    auto b = std::make_shared<Branch>();
    b->gid = gid;
    b->rmid = rmid;
    b->conn = c;
    {
        const std::lock_guard<std::mutex> lock(table().m);
        if (!table().byGid.emplace(gid, b).second) {
            release(c);
            return XAER_DUPID;
        }
    }
    const Reply r = run(c->pg, "BEGIN");
    if (r.ended != Ended::done) {
        const std::lock_guard<std::mutex> lock(b->m);
        retireBranch(*b);
        return r.ended == Ended::lost ? XAER_RMFAIL : XAER_RMERR;
    }
    own[rmid] = c;
    associated[rmid] = b;
    return XA_OK;
}

// Associates the thread with a known branch again. Returns XA_OK, XAER_NOTA for an unknown
// branch, XA_RBROLLBACK for one marked rollback-only, XAER_PROTO for one in the wrong state.
int reassociate(const std::string &gid, int rmid, long flags) {
    const std::shared_ptr<Branch> b = findBranch(gid);
    if (b == nullptr) {
        return XAER_NOTA;
    }
    const std::lock_guard<std::mutex> lock(b->m);
    const BranchState wanted = flags == TMJOIN ? BranchState::idle : BranchState::suspended;
    if (b->removed) {
        return XAER_NOTA;
    }
    if (b->state == BranchState::failed) {
        return XA_RBROLLBACK;
    }
    if (b->state != wanted) {
        return XAER_PROTO;
    }
    b->state = BranchState::active;
    associated[rmid] = b;
    return XA_OK;
}

}  // namespace

int startBranch(const XID *xid, int rmid, long flags) {
    if (xid == nullptr || (flags & ~kStartFlags) != 0 || flags == kStartFlags) {
        return XAER_INVAL;
    }
    if (!resourceOpen(rmid) || associated.contains(rmid)) {
        return XAER_PROTO;
    }
    const std::string gid = encodeGid(*xid, group(), rmid);
    if (gid.empty()) {
        return XAER_INVAL;
    }
    return flags == TMNOFLAGS ? beginBranch(gid, rmid) : reassociate(gid, rmid, flags);
}

// Ends the thread's association: TMSUCCESS leaves the branch to be prepared, TMFAIL marks it
// rollback-only, TMSUSPEND keeps it for a resume. A suspended branch may be ended by any
// thread. Returns XA_OK, XA_RBROLLBACK when the branch's transaction has failed already,
// XAER_NOTA for an unknown branch, XAER_PROTO for one not associated here nor suspended.
int endBranch(const XID *xid, int rmid, long flags) {
    if (xid == nullptr || (flags & ~kEndFlags) != 0 ||
        __builtin_popcountl(static_cast<unsigned long>(flags)) > 1) {
        return XAER_INVAL;
    }
    const std::shared_ptr<Branch> b = findBranch(encodeGid(*xid, group(), rmid));
    if (b == nullptr) {
        return XAER_NOTA;
    }
    const std::lock_guard<std::mutex> lock(b->m);
    const auto mine = associated.find(rmid);
    const bool here = mine != associated.end() && mine->second == b;
    if (b->removed || !(here || (b->state == BranchState::suspended && flags != TMSUSPEND))) {
        return b->removed ? XAER_NOTA : XAER_PROTO;
    }
    if (here) {
        associated.erase(mine);
    }
    if (flags == TMSUSPEND) {
        b->state = BranchState::suspended;
        return XA_OK;
    }
    // A statement that failed inside the branch has left PostgreSQL's transaction aborted.
    const bool aborted = PQtransactionStatus(b->conn->pg) != PQTRANS_INTRANS;
    b->state = flags == TMFAIL || aborted ? BranchState::failed : BranchState::idle;
    return aborted && flags != TMFAIL ? XA_RBROLLBACK : XA_OK;
}

PGconn *threadConnection(int rmid) {
    const auto it = associated.find(rmid);
    return it == associated.end() ? nullptr : it->second->conn->pg;
}

std::shared_ptr<Branch> findBranch(const std::string &gid) {
    const std::lock_guard<std::mutex> lock(table().m);
    const auto it = table().byGid.find(gid);
    return it == table().byGid.end() ? nullptr : it->second;
}

void retireBranch(Branch &b) {
    b.removed = true;
    if (b.conn != nullptr) {
        release(b.conn);
        b.conn = nullptr;
    }
    const std::lock_guard<std::mutex> lock(table().m);
    table().byGid.erase(b.gid);
}

}  // namespace xajms::eg

namespace xajms::eg {

void rememberEnding(Ending how, const std::string &gid, int code) {
    Endings &e = endings();
    const std::lock_guard<std::mutex> lock(e.m);
    if (e.codes.insert_or_assign({how, gid}, code).second) {
        e.order.emplace_back(how, gid);
    }
    if (e.order.size() > kRememberedEndings) {
        e.codes.erase(e.order.front());
        e.order.pop_front();
    }
}

std::optional<int> rememberedEnding(Ending how, const std::string &gid) {
    Endings &e = endings();
    const std::lock_guard<std::mutex> lock(e.m);
    const auto it = e.codes.find({how, gid});
    return it == e.codes.end() ? std::nullopt : std::optional<int>(it->second);
}

}  // namespace xajms::eg
