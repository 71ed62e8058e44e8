// The two transactions xajms-bench-pg compares: a two-resource transaction through the switch
// and the PostgreSQL execution group, and the same SQL with PREPARE TRANSACTION and COMMIT
// PREPARED sent directly through libpq.
#pragma once

#include <libpq-fe.h>
#include <xajms/xa.h>

#include <string>

namespace xajms::bench_pg {

inline constexpr long kFormatId = 0x62656e63;

// One transaction through the switch on the calling thread, numbered n: xa_start of rmids 1
// and 2, an INSERT on each branch's connection, xa_end, xa_prepare and xa_commit of both.
// True when every call returned XA_OK.
bool switchTransaction(xa_switch_t *sw, int thread, long n);

// The same work on two connections of the thread's own: BEGIN and the INSERT on each,
// PREPARE TRANSACTION of each, COMMIT PREPARED of each. With hops, each PREPARE and COMMIT
// PREPARED is preceded by a request to the execution group's listener that needs no database
// work (xa_forget_entry of an XID it does not hold): the four listener round trips that the
// switch's prepares and commits make, and nothing else of the switch. True when every
// statement and request succeeded.
bool directTransaction(PGconn *a, PGconn *b, int thread, long n, xa_switch_t *hops);

}  // namespace xajms::bench_pg
