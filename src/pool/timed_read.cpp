// The receive primitives of the queue-manager side: one receive bounded by an absolute
// deadline, retrying interrupted waits and would-block receives, and a read of an exact
// number of bytes within a time-out, which clears the whole pool when it fails.
#include "pool/pool.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "trace/trace.h"

namespace {

using xajms::pool::kReadFailed;
using xajms::pool::kTimedOut;
using xajms::trace::kXASocket;

constexpr char kRecv[] = "recvTimeout";
constexpr char kRead[] = "readFromSocket";

int clampToInt(long long value) {
    if (value > INT_MAX) {
        return INT_MAX;
    }
    return value < INT_MIN ? INT_MIN : static_cast<int>(value);
}

// Seconds from now to the deadline, negative once it has passed.
int secondsLeft(int zeroHour) {
    return clampToInt(static_cast<long long>(zeroHour) - static_cast<long long>(time(nullptr)));
}

// The counters that every ending of recvTimeout_jms reports.
struct Wait {
    int originalTimeoutDiff;
    int timeoutDiff;
    int failureCount;
};

// Writes the ending's data line and the exit line, and returns the result.
__attribute__((format(printf, 2, 3))) int endWith(int result, const char *format, ...) {
    if (xajms::trace::on(sockettraceJMSfile)) {
        char text[xajms::trace::kTextSize];
        va_list args;
        va_start(args, format);
        (void)std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
        traceJMSData(sockettraceJMSfile, kXASocket, kRecv, text);
    }
    traceJMSExit(sockettraceJMSfile, kXASocket, kRecv);
    return result;
}

// The call ends after a successful wake-up with the count that the one recv gave.
int endWithCount(int count, const Wait &wait) {
    xajms::trace::data(
        sockettraceJMSfile, kXASocket, kRecv,
        "Successful read; data=%d originalTimeoutDiff=%d timeoutDiff=%d failureCount=%d", count,
        wait.originalTimeoutDiff, wait.timeoutDiff, wait.failureCount);
    traceJMSExit(sockettraceJMSfile, kXASocket, kRecv);
    return count;
}

// Receives once after a wake-up. Returns true with the call's result in result, or false
// when recv would block and the loop is to retry.
bool receive(int sockfd, void *buffer, size_t wanted, const Wait &wait, int &result) {
    const ssize_t got = recv(sockfd, buffer, wanted, 0);
    if (got != -1) {
        result = endWithCount(static_cast<int>(got), wait);
        return true;
    }
    if (errno == EAGAIN) {
        return false;
    }
    result = endWith(kReadFailed,
                     "Error during recv call; errno=%d originalTimeoutDiff=%d timeoutDiff=%d",
                     errno, wait.originalTimeoutDiff, wait.timeoutDiff);
    return true;
}

// One wait for data and at most one receive. Returns true with the call's result in result,
// or false when the wait was interrupted or the receive would block.
bool waitAndReceive(int sockfd, void *buffer, size_t wanted, const Wait &wait, int &result) {
    errno = 0;
    pollfd waitFor{sockfd, POLLIN | POLLPRI, 0};
    const int ready = poll(&waitFor, 1, clampToInt(1000LL * wait.timeoutDiff));
    if (ready < 0) {
        if (errno == EINTR) {
            return false;
        }
        result =
            endWith(kReadFailed,
                    "Error during select/poll call; errno=%d originalTimeoutDiff=%d timeoutDiff=%d",
                    errno, wait.originalTimeoutDiff, wait.timeoutDiff);
        return true;
    }
    if (ready == 0) {
        result = endWith(
            kTimedOut,
            "Timeout during select/poll call; errno=%d originalTimeoutDiff=%d timeoutDiff=%d",
            errno, wait.originalTimeoutDiff, wait.timeoutDiff);
        return true;
    }
    if ((waitFor.revents & (POLLIN | POLLPRI)) == 0) {
        result = endWith(
            kReadFailed,
            "Socket error: select/poll returned but without any data; errno=%d originalTimeoutDiff=%d timeoutDiff=%d",
            errno, wait.originalTimeoutDiff, wait.timeoutDiff);
        return true;
    }
    return receive(sockfd, buffer, wanted, wait, result);
}

// Ends a failed read: traces why, then closes every pooled socket of the process under the
// pool lock, the sockets other callers hold included; a hardened process leaves that to the
// caller, which replaces its own socket only. Returns -99 after a time-out, else -1.
int failedRead(int rc) {
    const int result = rc == kTimedOut ? kTimedOut : kReadFailed;
    if (result == kTimedOut) {
        traceJMSData(sockettraceJMSfile, kXASocket, kRead, "Timed Out while reading on socket");
    } else {
        traceJMSData(sockettraceJMSfile, kXASocket, kRead, "Error while reading on socket");
    }
    if (!xajms::pool::hardened()) {
        lockConnectionPool_jms();
        poolClear_jms(xajms::pool::kAllPorts);
        unlockConnectionPool_jms();
    }
    return result;
}

}  // namespace

extern "C" {

// Returns the bytes that one recv gave (0 when the peer has closed), -1 on an error or after
// too many retries, -99 when the deadline passes. A negative len receives nothing.
int recvTimeout_jms(int sockfd, void *buffer, int len, int zeroHour) {
    Wait wait{secondsLeft(zeroHour), 0, 0};
    if (wait.originalTimeoutDiff < 0) {
        wait.originalTimeoutDiff = 0;
    }
    wait.timeoutDiff = wait.originalTimeoutDiff;
    traceJMSEntry(sockettraceJMSfile, kXASocket, "recvTimeout_jms");
    xajms::trace::data(sockettraceJMSfile, kXASocket, kRecv, "len=%d zeroHour=%d timeoutDiff=%d ",
                       len, zeroHour, wait.timeoutDiff);
    const size_t wanted = len > 0 ? static_cast<size_t>(len) : 0;
    for (;;) {
        if (wait.timeoutDiff < 0) {
            return endWith(
                kTimedOut,
                "Timeout during select/poll loop as counter wegative; errno=%d originalTimeoutDiff=%d timeoutDiff=%d",
                errno, wait.originalTimeoutDiff, wait.timeoutDiff);
        }
        if (wait.failureCount > xajms::pool::kMaxFailures) {
            return endWith(
                kReadFailed,
                "Socket error: too many EINTRs/EAGAINs; errno=%d originalTimeoutDiff=%d timeoutDiff=%d failureCount=%d",
                errno, wait.originalTimeoutDiff, wait.timeoutDiff, wait.failureCount);
        }
        int result = 0;
        if (waitAndReceive(sockfd, buffer, wanted, wait, result)) {
            return result;
        }
        wait.failureCount += 1;
        wait.timeoutDiff = secondsLeft(zeroHour);
    }
}

// Reads exactly length bytes within timeout seconds, all receives sharing one deadline.
// Returns length, -99 on a time-out, -1 on any other failure (length below 1 included);
// after a failed read every pooled socket of the process is closed (hardened: none).
int readFromSocket_jms(int sockfd, unsigned char *buffer, int length, int timeout) {
    const int zeroHour = clampToInt(static_cast<long long>(time(nullptr)) + timeout);
    if (xajms::trace::on(sockettraceJMSfile)) {
        xajms::trace::entryData(sockettraceJMSfile, kXASocket, kRead,
                                "sockfd=%d, length of read=%d, timeout=%d zeroHour=%d", sockfd,
                                length, timeout, zeroHour);
    }
    int result = kReadFailed;
    int remaining = length;
    if (length >= 1) {
        int offset = 0;
        int rc = 0;
        for (;;) {
            // Each read lands at the count of the read before it, not at the running total.
            rc = recvTimeout_jms(sockfd, buffer + offset, remaining, zeroHour);
            if (rc < 1) {
                break;
            }
            remaining -= rc;
            if (remaining < 1) {
                traceJMSData(sockettraceJMSfile, kXASocket, kRead, " Read all daata from socket");
                result = length;
                break;
            }
            if (xajms::trace::on(sockettraceJMSfile)) {
                xajms::trace::data(sockettraceJMSfile, kXASocket, kRead,
                                   " partial read from socket %d bytes ", rc);
            }
            offset = rc;
        }
        if (rc < 1) {
            result = failedRead(rc);
        }
    }
    if (xajms::trace::on(sockettraceJMSfile)) {
        xajms::trace::data(sockettraceJMSfile, kXASocket, kRead, "read %d bytes; finalRC=%d ",
                           length - remaining, result);
    }
    traceJMSExit(sockettraceJMSfile, kXASocket, kRead);
    return result;
}

}  // extern "C"
