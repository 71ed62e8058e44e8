// The workload's SQL: the two queue tables, filling the source queue, taking a message from
// it and putting it on the target queue inside the branches, and the invariant that each
// message is in exactly one of the two.
#pragma once

#include <libpq-fe.h>

#include <memory>
#include <string>

namespace xajms::eg_host {

struct ConnectionClose {
    void operator()(PGconn *pg) const { PQfinish(pg); }
};
using Connection = std::unique_ptr<PGconn, ConnectionClose>;

// A connection of the tool's own, outside any branch. Throws Failure with libpq's reason
// when the database cannot be reached; what names the database's role (source or target).
Connection connectTo(const std::string &conninfo, const std::string &what);

// Creates the queue tables where missing (source_queue in source, target_queue in target,
// which may be the same connection), empties them and writes the messages 1..n into the
// source queue. Throws Failure.
void fillQueues(PGconn *source, PGconn *target, long n);

struct Counts {
    long total = 0;      // messages of the last fill
    long source = 0;     // in the source queue
    long target = 0;     // in the target queue
    long both = 0;       // in both: moved twice
    long missing = 0;    // in neither: lost
    long strangers = 0;  // ids outside 1..total
    long inDoubt = 0;    // prepared transactions of the databases still waiting for an outcome
    bool holds() const { return both == 0 && missing == 0 && strangers == 0; }
};

// Reads both queues and counts. Throws Failure.
Counts countQueues(PGconn *source, PGconn *target);

enum class Taken { message, empty, failed };

// Inside a branch: deletes the source queue's oldest message that no other branch holds and
// returns it. failed carries libpq's reason in why.
Taken takeMessage(PGconn *pg, long &id, std::string &body, std::string &why);

// Inside a branch: inserts the message into the target queue; false with why on failure.
bool putMessage(PGconn *pg, long id, const std::string &body, std::string &why);

}  // namespace xajms::eg_host
