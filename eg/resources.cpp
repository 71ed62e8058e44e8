// The resources this process has opened: one execution group, and per rmid the database its
// branches live in and the connections to it. A connection serves one branch or one request
// at a time; the process keeps every connection it opened.
#include "eg.h"

#include <cstdlib>
#include <map>

namespace xajms::eg {

namespace {

struct Resource {
    std::string conninfo;
    std::vector<std::unique_ptr<Connection>> connections;
};

// The process's resources. Never destroyed: the listener's threads may still use them while
// the process exits, and the connections stay reachable until the end.
struct Resources {
    std::mutex m;
    std::string groupName;
    std::uint32_t groupTag = 0;
    std::map<int, Resource> byRmid;
};

Resources &state() {
    static Resources *const resources = new Resources;
    return *resources;
}

// The server's notices (a ROLLBACK outside a transaction warns) are not the host's output.
void ignoreNotice(void * /*arg*/, const char * /*message*/) {}

// Opens a connection to the database; null, reported, when it cannot be reached.
PGconn *connect(const std::string &conninfo, int rmid) {
    PGconn *pg = PQconnectdb(conninfo.c_str());
    if (pg == nullptr || PQstatus(pg) != CONNECTION_OK) {
        report("rmid %d: cannot reach the database: %s", rmid, connectionError(pg).c_str());
        PQfinish(pg);
        return nullptr;
    }
    PQsetNoticeProcessor(pg, ignoreNotice, nullptr);
    return pg;
}

// Whether the server can prepare transactions at all; reported when it cannot.
bool canPrepare(PGconn *pg, int rmid) {
    const Reply r = run(pg, "SHOW max_prepared_transactions");
    if (r.ended != Ended::done || PQntuples(r.result.get()) != 1) {
        report("rmid %d: cannot read max_prepared_transactions", rmid);
        return false;
    }
    if (std::strtol(PQgetvalue(r.result.get(), 0, 0), nullptr, 10) < 1) {
        report("rmid %d: the server has max_prepared_transactions = 0 and cannot prepare", rmid);
        return false;
    }
    return true;
}

// Whether this open agrees with what the process has opened before; reports when not.
bool agrees(const OpenString &open, int rmid) {
    if (!state().groupName.empty() && state().groupName != open.eg) {
        report("open of rmid %d refused: this process serves execution group %s, not %s", rmid,
               state().groupName.c_str(), open.eg.c_str());
        return false;
    }
    const auto it = state().byRmid.find(rmid);
    if (it != state().byRmid.end() && it->second.conninfo != open.conninfo) {
        report("open of rmid %d refused: the rmid is open on another database", rmid);
        return false;
    }
    return true;
}

}  // namespace

int openResource(const OpenString &open, int rmid) {
    {
        const std::lock_guard<std::mutex> lock(state().m);
        if (!agrees(open, rmid)) {
            return XAER_INVAL;
        }
        if (state().byRmid.contains(rmid)) {
            return XA_OK;
        }
    }
    PGconn *pg = connect(open.conninfo, rmid);
    if (pg == nullptr || !canPrepare(pg, rmid)) {
        PQfinish(pg);
        return XAER_RMERR;
    }
    const std::lock_guard<std::mutex> lock(state().m);
    if (!agrees(open, rmid)) {
        PQfinish(pg);
        return XAER_INVAL;
    }
    state().groupName = open.eg;
    state().groupTag = groupTag(open.eg);
    Resource &r = state().byRmid[rmid];
    r.conninfo = open.conninfo;
    r.connections.push_back(std::make_unique<Connection>(Connection{pg, rmid, false}));
    return XA_OK;
}

void dropResource(int rmid) {
    const std::lock_guard<std::mutex> lock(state().m);
    const auto it = state().byRmid.find(rmid);
    if (it == state().byRmid.end()) {
        return;
    }
    for (const auto &c : it->second.connections) {
        PQfinish(c->pg);
    }
    state().byRmid.erase(it);
    if (state().byRmid.empty()) {
        state().groupName.clear();
        state().groupTag = 0;
    }
}

std::string groupName() {
    const std::lock_guard<std::mutex> lock(state().m);
    return state().groupName;
}

std::uint32_t group() {
    const std::lock_guard<std::mutex> lock(state().m);
    return state().groupTag;
}

bool resourceOpen(int rmid) {
    const std::lock_guard<std::mutex> lock(state().m);
    return state().byRmid.contains(rmid);
}

Connection *acquire(int rmid, Connection *preferred, Taken &taken) {
    Connection *c = nullptr;
    std::string conninfo;
    {
        const std::lock_guard<std::mutex> lock(state().m);
        const auto it = state().byRmid.find(rmid);
        if (it == state().byRmid.end()) {
            taken = Taken::unknownRmid;
            return nullptr;
        }
        if (preferred != nullptr && preferred->rmid == rmid && !preferred->busy) {
            c = preferred;
        }
        for (auto i = it->second.connections.begin();
             c == nullptr && i != it->second.connections.end(); ++i) {
            c = (*i)->busy ? nullptr : i->get();
        }
        if (c != nullptr) {
            c->busy = true;
        }
        conninfo = it->second.conninfo;
    }
    if (c != nullptr && PQstatus(c->pg) != CONNECTION_OK) {
        PQreset(c->pg);
    }
    // No work of a finished branch may ever reach the next one.
    if (c != nullptr && PQstatus(c->pg) == CONNECTION_OK &&
        PQtransactionStatus(c->pg) != PQTRANS_IDLE) {
        run(c->pg, "ROLLBACK");
    }
    if (c != nullptr) {
        taken = PQstatus(c->pg) == CONNECTION_OK ? Taken::ok : Taken::unreachable;
        if (taken != Taken::ok) {
            release(c);
            return nullptr;
        }
        return c;
    }
    PGconn *pg = connect(conninfo, rmid);
    if (pg == nullptr) {
        taken = Taken::unreachable;
        return nullptr;
    }
    const std::lock_guard<std::mutex> lock(state().m);
    auto &list = state().byRmid[rmid].connections;
    list.push_back(std::make_unique<Connection>(Connection{pg, rmid, true}));
    taken = Taken::ok;
    return list.back().get();
}

void release(Connection *c) {
    const std::lock_guard<std::mutex> lock(state().m);
    c->busy = false;
}

}  // namespace xajms::eg
