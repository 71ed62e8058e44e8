// The completion senders: prepare, commit, rollback and forget through the fan-out, with the
// mapping of their answers to the code the queue manager sees, and the close that tells the
// start-up recovery listener to end its Java process.
#include "protocol/protocol.h"

#include <unistd.h>

#include <cstring>

#include "pool/pool.h"
#include "trace/trace.h"

namespace {

using xajms::protocol::kNoAnswer;
using xajms::trace::kXASocket;

constexpr char kPrepareName[] = "sendXAPrepare";
constexpr char kCloseName[] = "sendXAClose";

// Commit, rollback and forget: one fan-out; a missing answer and XAER_RMERR become
// XAER_RMFAIL, every other code is returned as the listeners combined it.
int complete(const XID *xid, int rmid, long flags, int msgType, const char *function) {
    xajms::trace::entryData(sockettraceJMSfile, kXASocket, function, "rmid = %d", rmid);
    traceJMSformattedXID(sockettraceJMSfile, kXASocket, function, xid);
    int rc = callEGListeners_jms(xid, rmid, flags, msgType);
    xajms::trace::data(sockettraceJMSfile, kXASocket, function, "received JDBC Provider rcode %d",
                       rc);
    if (rc == kNoAnswer || rc == XAER_RMERR) {
        rc = XAER_RMFAIL;
    }
    xajms::trace::exitData(sockettraceJMSfile, kXASocket, function, "XARC = %d", rc);
    return rc;
}

// A prepare whose fan-out reports no answer is rolled back: XA_RBTIMEOUT when the rollback
// succeeds, else the rollback's code (no answer becoming XAER_RMFAIL, XAER_RMERR unmapped).
int rollBackUnanswered(const XID *xid, int rmid, long flags) {
    traceJMSData(sockettraceJMSfile, kXASocket, kPrepareName, "timed out - rolling back");
    const int rc = callEGListeners_jms(xid, rmid, flags, xajms::protocol::kRollback);
    if (rc == XA_OK) {
        traceJMSData(sockettraceJMSfile, kXASocket, kPrepareName, "successful rollback");
        return XA_RBTIMEOUT;
    }
    xajms::trace::data(sockettraceJMSfile, kXASocket, kPrepareName, "rollback failed rcode = %d",
                       rc);
    return rc == kNoAnswer ? XAER_RMFAIL : rc;
}

// Hardened: a prepare that a listener voted to roll back may have left the others prepared,
// and a coordinator does not roll back a branch whose prepare returned a rollback vote. So
// every listener is sent the rollback: the vote is returned once each has rolled back or had
// no branch, else XAER_RMFAIL, so that the coordinator rolls back or recovers the branch.
int rollBackVoted(const XID *xid, int rmid, long flags, int vote) {
    traceJMSData(sockettraceJMSfile, kXASocket, kPrepareName, "voted rollback - rolling back");
    const int rc = callEGListeners_jms(xid, rmid, flags, xajms::protocol::kRollback);
    if (rc == XA_OK || rc == XAER_NOTA || (rc >= XA_RBBASE && rc <= XA_RBEND)) {
        traceJMSData(sockettraceJMSfile, kXASocket, kPrepareName, "successful rollback");
        return vote;
    }
    xajms::trace::data(sockettraceJMSfile, kXASocket, kPrepareName, "rollback failed rcode = %d",
                       rc);
    return XAER_RMFAIL;
}

// Looks the start-up recovery port up. While the registry cannot be attached it asks again
// at once, without sleeping and without counting: the close waits for the registry as long
// as that takes, as required. A registry without the port is asked five times, a second
// apart. Returns the port, or 0.
int findRecoveryPort() {
    int failures = 0;
    for (;;) {
        void *mapping = GetSharedMemory_jms();
        if (mapping == nullptr) {
            continue;
        }
        const int port = GetStartUpRecoveryPort_jms(mapping);
        xajms::trace::data(sockettraceJMSfile, kXASocket, kCloseName, "portNumber = %d", port);
        if (port != 0) {
            return port;
        }
        sleep(xajms::protocol::kRetrySeconds);
        failures += 1;
        if (failures == xajms::protocol::kRecoveryPortAttempts) {
            return 0;
        }
    }
}

// The bytes of the close text sent: up to its terminator, at most what fits behind the
// header in the request buffer; none for a null text.
int closeTextLength(const char *text) {
    if (text == nullptr) {
        return 0;
    }
    return static_cast<int>(strnlen(text, xajms::protocol::kMaxCloseText));
}

}  // namespace

extern "C" {

int sendXAForget_jms(const XID *xid, int rmid, long flags) {
    return complete(xid, rmid, flags, xajms::protocol::kForget, "sendXAForget");
}

int sendXARollback_jms(const XID *xid, int rmid, long flags) {
    return complete(xid, rmid, flags, xajms::protocol::kRollback, "sendXARollback");
}

int sendXACommit_jms(const XID *xid, int rmid, long flags) {
    return complete(xid, rmid, flags, xajms::protocol::kCommit, "sendXACommit");
}

// Returns the listeners' combined answer with XAER_RMERR as XAER_RMFAIL, or, when the
// fan-out reports no answer at all, the outcome of rolling the transaction back; hardened,
// a rollback vote is returned only once every listener has rolled back (rollBackVoted).
int sendXAPrepare_jms(const XID *xid, int rmid, long flags) {
    xajms::trace::entryData(sockettraceJMSfile, kXASocket, kPrepareName, "rmid = %d", rmid);
    traceJMSformattedXID(sockettraceJMSfile, kXASocket, kPrepareName, xid);
    if (flSocketBrokerHasDeployed_jms == 0) {
        flSocketBrokerHasDeployed_jms = 1;
    }
    int rc = callEGListeners_jms(xid, rmid, flags, xajms::protocol::kPrepare);
    if (rc != kNoAnswer) {
        xajms::trace::data(sockettraceJMSfile, kXASocket, kPrepareName,
                           "received JDBC Provider rcode %d", rc);
        if (rc == XAER_RMERR) {
            rc = XAER_RMFAIL;
        }
        if (rc >= XA_RBBASE && rc <= XA_RBEND && xajms::pool::hardened()) {
            rc = rollBackVoted(xid, rmid, flags, rc);
        }
    } else {
        rc = rollBackUnanswered(xid, rmid, flags);
    }
    xajms::trace::exitData(sockettraceJMSfile, kXASocket, kPrepareName, "XARC = %d", rc);
    return rc;
}

// Sends the close text to the start-up recovery listener, then clears that port's pooled
// sockets and marks the port dead; no answer is read. Returns XAER_RMFAIL when the write
// fails, else 0, also when no port or no socket could be had.
int sendXAClose_jms(const char *text, int rmid, long flags) {
    using namespace xajms::protocol;
    xajms::trace::entryData(sockettraceJMSfile, kXASocket, kCloseName, "rmid = %d", rmid);
    const int length = closeTextLength(text);
    const int msgSize = kHeaderSize + length;
    unsigned char request[kRequestBuffer] = {};
    buildHeader_jms(request, msgSize, kClose, rmid, flags);
    if (length > 0) {
        std::memcpy(request + kHeaderSize, text, static_cast<size_t>(length));
    }
    const int port = findRecoveryPort();
    if (port > 0) {
        int sockfd = 0;
        connectionSocketPool_jms(port, &sockfd, xajms::pool::kActionGet);
        if (sockfd > 0) {
            traceJMSData(sockettraceJMSfile, kXASocket, kCloseName, "sending xa_close msg");
            const long sent = sendRequest(sockfd, request, msgSize);
            if (sent < 0) {
                traceJMSExitData(sockettraceJMSfile, kXASocket, kCloseName,
                                 "ERROR writing on socket");
                xajms::pool::abandon(sockfd);
                return XAER_RMFAIL;
            }
            xajms::trace::data(sockettraceJMSfile, kXASocket, kCloseName, "wrote %d bytes",
                               static_cast<int>(sent));
            connectionSocketPool_jms(port, &sockfd, xajms::pool::kActionClear);
            markBrokerPortDead_jms(port);
        }
    } else {
        traceJMSExitData(sockettraceJMSfile, kXASocket, kCloseName,
                         "We don't have a Recovery port to call");
    }
    xajms::trace::data(sockettraceJMSfile, kXASocket, kCloseName, "XARC is: %d", 0);
    if (flSocketBrokerHasDeployed_jms >= 1) {
        deleteConnectionPoolLock_jms();
    }
    return 0;
}

}  // extern "C"
