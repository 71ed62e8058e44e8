// The pool lock: one process-local read-write lock, taken only for writing, created on first
// use and destroyed by the close request. Initialisation, lock and unlock count only a result
// of -1 as failure, while the destroy counts any non-zero result; that difference is kept.
#include "pool/pool.h"

#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "trace/trace.h"

extern "C" {
pthread_rwlock_t iRWLock_jms;
int flConnectionPoolInitialized_jms = 0;
int flSocketBrokerHasDeployed_jms = 0;
}

namespace {

using xajms::trace::kXASocket;

// The lock calls report an error number, never -1; this is the failure value that
// initialisation, lock and unlock nevertheless test for.
constexpr int kLockCallFailed = -1;

// strerror_r comes in a GNU form (returns the text) and an XSI form (fills the buffer);
// these two overloads take the text from whichever the C library provides.
[[maybe_unused]] const char *errorText(const char *text, const char *) {
    return text;
}
[[maybe_unused]] const char *errorText(int, const char *buffer) {
    return buffer;
}

// The text of an errno value; buffer holds kTextSize bytes.
const char *errnoText(int code, char *buffer) {
    buffer[0] = '\0';
    return errorText(strerror_r(code, buffer, xajms::trace::kTextSize), buffer);
}

}  // namespace

extern "C" {

// Creates the lock unless the flag says it exists.
void initializeConnectionPoolLock_jms(void) {
    const bool tracing = xajms::trace::on(sockettraceJMSfile);
    if (tracing) {
        xajms::trace::entryData(sockettraceJMSfile, kXASocket, "initializeConnectionPoolLock",
                                " called for pid %d ", static_cast<int>(getpid()));
    }
    if (flConnectionPoolInitialized_jms == 0) {
        if (pthread_rwlock_init(&iRWLock_jms, nullptr) == kLockCallFailed) {
            const int saved = errno;
            char text[xajms::trace::kTextSize];
            if (tracing) {
                xajms::trace::data(sockettraceJMSfile, kXASocket, "initializeConnectionPoolock_jms",
                                   "Error creating ConnectionPool rwlock : %s",
                                   errnoText(saved, text));
            }
        } else {
            traceJMSData(sockettraceJMSfile, kXASocket, "initializeConnectionPoolock_jms",
                         "Created ConnectionPool rwlock");
            flConnectionPoolInitialized_jms = 1;
        }
    }
    traceJMSExit(sockettraceJMSfile, kXASocket, "initializeConnectionPoolLock");
}

// Takes the lock for writing, creating it first when needed. Every call takes the socket
// trace prefix from XAJMS_TRACEFILE again.
void lockConnectionPool_jms(void) {
    xajms::trace::copyFromEnvironment(sockettraceJMSfile);
    traceJMSEntry(sockettraceJMSfile, kXASocket, "lockConnectionPool_jms");
    if (flConnectionPoolInitialized_jms == 0) {
        initializeConnectionPoolLock_jms();
    }
    if (pthread_rwlock_wrlock(&iRWLock_jms) == kLockCallFailed) {
        const int saved = errno;
        char text[xajms::trace::kTextSize];
        if (xajms::trace::on(sockettraceJMSfile)) {
            xajms::trace::data(sockettraceJMSfile, kXASocket, "lockConnectionPool_jms",
                               "Error locking ConnectionPool rwlock : %s", errnoText(saved, text));
        }
    } else {
        traceJMSData(sockettraceJMSfile, kXASocket, "lockConnectionPool",
                     "locked ConnectionPool_jms rwlock");
        flConnectionPoolInitialized_jms = 1;
    }
    traceJMSExit(sockettraceJMSfile, kXASocket, "lockConnectionPool_jms");
}

// Releases the lock, creating it first when needed.
void unlockConnectionPool_jms(void) {
    traceJMSEntry(sockettraceJMSfile, kXASocket, "unlockConnectionPool");
    if (flConnectionPoolInitialized_jms == 0) {
        initializeConnectionPoolLock_jms();
    }
    if (pthread_rwlock_unlock(&iRWLock_jms) == kLockCallFailed) {
        const int saved = errno;
        char text[xajms::trace::kTextSize];
        if (xajms::trace::on(sockettraceJMSfile)) {
            xajms::trace::data(sockettraceJMSfile, kXASocket, "unlockConnectionPool_jms",
                               "Error unlocking ConnectionPool rwlock : %s",
                               errnoText(saved, text));
        }
    } else {
        traceJMSData(sockettraceJMSfile, kXASocket, "unlockConnectionPool",
                     "unlocked ConnectionPool rwlock");
        flConnectionPoolInitialized_jms = 1;
    }
    traceJMSExit(sockettraceJMSfile, kXASocket, "unlockConnectionPool");
}

// Destroys the lock when the flag says it exists; the next lock or unlock creates it anew.
void deleteConnectionPoolLock_jms(void) {
    traceJMSEntry(sockettraceJMSfile, kXASocket, "deleteConnectionPool_jms");
    if (flConnectionPoolInitialized_jms > 0) {
        if (pthread_rwlock_destroy(&iRWLock_jms) == 0) {
            traceJMSData(sockettraceJMSfile, kXASocket, "deleteConnectionPoolLock_jmd",
                         "deleted ConnectionPool rwlock");
            flConnectionPoolInitialized_jms = 0;
        } else {
            const int saved = errno;
            char text[xajms::trace::kTextSize];
            if (xajms::trace::on(sockettraceJMSfile)) {
                xajms::trace::data(sockettraceJMSfile, kXASocket, "deleteConnectionPoolLock_jms",
                                   "Error deleteing ConnectionPool rwlock : %s",
                                   errnoText(saved, text));
            }
        }
    }
    traceJMSExit(sockettraceJMSfile, kXASocket, "deleteConnectionPool");
}

}  // extern "C"
