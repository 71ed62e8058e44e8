// The compared transactions. Both send the application's statements in the same order; the
// switch's side adds what the execution group and the listener protocol do on top.
#include "transactions.h"

#include <xajms/eg.h>

#include <cstdio>
#include <cstring>

namespace xajms::bench_pg {

namespace {

constexpr char kInsert[] = "INSERT INTO work VALUES (1)";

bool ok(PGresult *r) {
    const ExecStatusType s = PQresultStatus(r);
    PQclear(r);
    return s == PGRES_COMMAND_OK || s == PGRES_TUPLES_OK;
}

XID xidOf(int thread, long n, int rmid) {
    XID xid{};
    xid.formatID = kFormatId;
    char gtrid[40];
    const int length = std::snprintf(gtrid, sizeof gtrid, "bench.%d.%ld", thread, n);
    xid.gtrid_length = length;
    xid.bqual_length = 1;
    std::memcpy(xid.data, gtrid, static_cast<std::size_t>(length));
    xid.data[length] = static_cast<char>('0' + rmid);
    return xid;
}

}  // namespace

bool switchTransaction(xa_switch_t *sw, int thread, long n) {
    XID x[2] = {xidOf(thread, n, 1), xidOf(thread, n, 2)};
    bool all = true;
    for (int r = 0; r < 2; ++r) {
        all = sw->xa_start_entry(&x[r], r + 1, TMNOFLAGS) == XA_OK && all;
        all = ok(PQexec(xajms_eg_connection(r + 1), kInsert)) && all;
        all = sw->xa_end_entry(&x[r], r + 1, TMSUCCESS) == XA_OK && all;
    }
    for (int r = 0; r < 2; ++r) {
        all = sw->xa_prepare_entry(&x[r], r + 1, TMNOFLAGS) == XA_OK && all;
    }
    for (int r = 0; r < 2; ++r) {
        all = sw->xa_commit_entry(&x[r], r + 1, TMNOFLAGS) == XA_OK && all;
    }
    return all;
}

bool directTransaction(PGconn *a, PGconn *b, int thread, long n, xa_switch_t *hops) {
    PGconn *pg[2] = {a, b};
    char gid[2][48];
    bool all = true;
    for (int r = 0; r < 2; ++r) {
        std::snprintf(gid[r], sizeof gid[r], "direct.%d.%ld.%d", thread, n, r);
        all = ok(PQexec(pg[r], "BEGIN")) && all;
        all = ok(PQexec(pg[r], kInsert)) && all;
    }
    // A forget of an XID the execution group does not hold is answered by its listener
    // without the database: the listener round trip of a prepare or commit, nothing else.
    XID unknown[2] = {xidOf(thread, -n, 1), xidOf(thread, -n, 2)};
    const auto hop = [&](int r) {
        return hops == nullptr || hops->xa_forget_entry(&unknown[r], r + 1, TMNOFLAGS) == XA_OK;
    };
    char sql[160];
    for (int r = 0; r < 2; ++r) {
        all = hop(r) && all;
        std::snprintf(sql, sizeof sql, "PREPARE TRANSACTION '%s'", gid[r]);
        all = ok(PQexec(pg[r], sql)) && all;
    }
    for (int r = 0; r < 2; ++r) {
        all = hop(r) && all;
        std::snprintf(sql, sizeof sql, "COMMIT PREPARED '%s'", gid[r]);
        all = ok(PQexec(pg[r], sql)) && all;
    }
    return all;
}

}  // namespace xajms::bench_pg
