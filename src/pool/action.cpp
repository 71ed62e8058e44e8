// The senders' single entry to the pool: an action code selects a get (with its three
// attempts), a return, a refresh or a clear, each run under the pool lock. The lock is never
// held across the sleep between attempts. Each action also keeps the record of which caller
// holds which socket (pool/holders.cpp).
#include "pool/pool.h"

#include <unistd.h>

#include "trace/trace.h"

namespace {

using xajms::trace::kXASocket;

constexpr char kFunction[] = "connectionSocketPool";

// Up to three attempts at a socket, one second of sleep after each failed one (the third
// included). Returns the descriptor, or 0 when none could be had.
int getWithRetries(int port) {
    int rc = xajms::pool::kNoSocket;
    for (int attempt = 0; attempt < xajms::pool::kGetAttempts; ++attempt) {
        lockConnectionPool_jms();
        rc = poolGetNext_jms(port);
        if (rc > 0) {
            xajms::pool::hold(rc);
        }
        unlockConnectionPool_jms();
        if (rc > 0) {
            break;
        }
        if (rc == xajms::pool::kSocketsExhausted || rc == xajms::pool::kPortsExhausted) {
            traceJMSData(sockettraceJMSfile, kXASocket, kFunction,
                         "All sockets currently in use - retrying");
        } else {
            traceJMSData(sockettraceJMSfile, kXASocket, kFunction,
                         "Unable to obtain a socket -  retrying");
        }
        sleep(xajms::pool::kRetrySleepSeconds);
    }
    if (rc == xajms::pool::kSocketsExhausted || rc == xajms::pool::kPortsExhausted) {
        return xajms::pool::kNoSocket;
    }
    return rc;
}

}  // namespace

extern "C" {

// Runs one pool action for the port. After action 10 *sockfd holds a descriptor (> 0) or 0;
// for actions 20 and 30 it holds the descriptor handed back; action 40 does not use it. With
// a null sockfd, actions 10, 20 and 30 leave the pool alone: a socket got could not be handed
// to anyone and would stay marked in use for good.
void connectionSocketPool_jms(int port, int *sockfd, int action) {
    if (xajms::trace::on(sockettraceJMSfile)) {
        xajms::trace::entryData(sockettraceJMSfile, kXASocket, "connectionSocketPool_jms",
                                " port=%d, action=%d", port, action);
    }
    if (flConnectionPoolInitialized_jms == 0) {
        initializeConnectionPoolLock_jms();
        if (flConnectionPoolInitialized_jms == 0) {
            return;
        }
    }
    switch (action) {
        case xajms::pool::kActionGet:
            if (sockfd != nullptr) {
                *sockfd = getWithRetries(port);
            }
            break;
        case xajms::pool::kActionReturn:
            if (sockfd != nullptr) {
                lockConnectionPool_jms();
                poolReturn_jms(port, *sockfd);
                xajms::pool::giveBack(*sockfd, false);
                unlockConnectionPool_jms();
            }
            break;
        case xajms::pool::kActionRefresh:
            if (sockfd != nullptr) {
                lockConnectionPool_jms();
                poolReturnAndRefresh_jms(port, *sockfd);
                xajms::pool::giveBack(*sockfd, true);
                unlockConnectionPool_jms();
            }
            break;
        case xajms::pool::kActionClear:
            traceJMSData(sockettraceJMSfile, kXASocket, kFunction, "About to clear all ports");
            lockConnectionPool_jms();
            poolClear_jms(port);
            xajms::pool::endHold();
            unlockConnectionPool_jms();
            break;
        default:
            break;
    }
    traceJMSExit(sockettraceJMSfile, kXASocket, kFunction);
}

}  // extern "C"
