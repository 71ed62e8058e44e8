// The companion library's exports: "JNIStartJMS" hands libxajms the table whose open, start
// and end slots associate the host's threads with branches; the application's C API. The
// first successful open starts the listener. No exception leaves these functions.
#include "eg.h"

#include <xajms/xajms.h>

#include <exception>

#include "xajms/eg.h"

namespace {

using namespace xajms::eg;

// Opens the rmid's database, then starts the listener unless it runs. Returns XA_OK,
// XAER_INVAL for a malformed open string or one that contradicts an earlier open, XAER_RMERR
// when the database cannot be reached or the listener cannot start; nothing stays open after
// a refusal.
int openWorker(const char *openstring, int rmid, long flags) {
    std::string why;
    const auto open = parseOpenString(openstring != nullptr ? openstring : "", why);
    if (!open || flags != TMNOFLAGS) {
        report("open of rmid %d refused: %s", rmid, open ? "flags not supported" : why.c_str());
        return XAER_INVAL;
    }
    if (!open->log.empty()) {
        setLogPath(open->log);
    }
    const bool known = resourceOpen(rmid);
    const int rc = openResource(*open, rmid);
    if (rc != XA_OK) {
        return rc;
    }
    why = startListener(open->eg);
    if (!why.empty()) {
        report("execution group %s cannot start its listener: %s", open->eg.c_str(), why.c_str());
        if (!known) {
            dropResource(rmid);
        }
        return XAER_RMERR;
    }
    return XA_OK;
}

// Runs an entry's work; an exception (out of memory, a thread that cannot start) is reported
// and answered with XAER_RMERR.
template <typename Work>
int guarded(const char *entry, int rmid, Work work) {
    try {
        return work();
    } catch (const std::exception &e) {
        report("%s of rmid %d failed: %s", entry, rmid, e.what());
        return XAER_RMERR;
    }
}

int egOpen(char *openstring, int rmid, long flags) {
    return guarded("open", rmid, [&] { return openWorker(openstring, rmid, flags); });
}

int egStart(XID *xid, int rmid, long flags) {
    return guarded("start", rmid, [&] { return startBranch(xid, rmid, flags); });
}

int egEnd(XID *xid, int rmid, long flags) {
    return guarded("end", rmid, [&] { return endBranch(xid, rmid, flags); });
}

JNISwitchJMS table = {egOpen, nullptr, egStart, egEnd};

}  // namespace

extern "C" {

XAJMS_EG_API JNISwitchJMS *JNIStartJMS(void) {
    return &table;
}

PGconn *xajms_eg_connection(int rmid) {
    return threadConnection(rmid);
}

int xajms_eg_wait_closed(int timeout_ms) {
    return waitClosed(timeout_ms) ? 1 : 0;
}

}  // extern "C"
