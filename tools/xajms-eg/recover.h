// Recovery of the execution group's in-doubt branches: what a coordinator does at start.
#pragma once

#include <cstdio>

#include "unit.h"

namespace xajms::eg_host {

// Asks the group's listener for the prepared branches of each rmid (the listener's recover
// request, sendBrokerXARecover_jms: the switch's xa_recover always reports none), commits those
// whose gtrid has a decision in the log and rolls back the others, printing one line per XID
// to out; then empties the log. Returns the number of branches resolved. Throws Failure when
// a resource cannot be asked or a branch cannot be resolved; the log then keeps every decision.
long recoverBranches(const Host &host, std::FILE *out, bool quiet);

// Lists the in-doubt branches of each rmid and what a recovery would do with each, one line
// per XID, resolving nothing. Returns their number; throws Failure when a resource cannot be
// asked.
long listInDoubt(const Host &host, std::FILE *out);

}  // namespace xajms::eg_host
