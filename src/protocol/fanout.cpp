// The fan-out behind prepare, commit, rollback and forget: one request to every execution
// group listener that the registry lists, in list order, one 4-byte answer from each, and
// the answers folded into one XA code.
#include "protocol/protocol.h"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "pool/pool.h"
#include "registry/registry.h"
#include "trace/trace.h"

namespace {

using xajms::protocol::kNoAnswer;
using xajms::trace::kXASocket;

constexpr char kFanOut[] = "callEGListeners";
constexpr char kReceive[] = "receiveXARC";

// The fan-out's running state: the combined result and the last listener's code; for the
// hardened fold, the request code and whether a listener's answer has been folded yet.
struct FanOut {
    int result = XA_OK;
    int last = kNoAnswer;
    int msgType = 0;
    bool folded = false;
};

// Hands a line to the trace only while the socket trace is off, so that it never reaches a
// trace file (the facility drops it); the test is inverted on purpose and kept so.
__attribute__((format(printf, 1, 2))) void untraced(const char *format, ...) {
    if (xajms::trace::on(sockettraceJMSfile)) {
        return;
    }
    char text[xajms::trace::kTextSize];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    traceJMSData(sockettraceJMSfile, kXASocket, kFanOut, text);
}

int registryRows(const void *mapping) {
    const auto *file = static_cast<const xajms::registry::File *>(mapping);
    return xajms::registry::load(file->header.rowCount);
}

// Looks the listeners' ports up, broker ports before pending ports, at most three times with
// a second of sleep after each miss. Returns the number of ports stored, 0 when none.
int findPorts(int *ports) {
    for (int attempt = 1; attempt <= xajms::protocol::kFanOutAttempts; ++attempt) {
        void *mapping = GetSharedMemory_jms();
        if (mapping != nullptr) {
            int n = GetBrokerPorts_jms(mapping, ports);
            if (attempt == 1) {
                untraced(" Number of Shared memory rows= %d Number of broker ports= %d",
                         registryRows(mapping), n);
            }
            if (n != 0) {
                return n;
            }
            n = GetPendingPort_jms(mapping, ports);
            if (attempt == 1) {
                untraced(" Number of Shared memory rows= %d Number of pending ports= %d",
                         registryRows(mapping), n);
            }
            if (n != 0) {
                return n;
            }
        }
        sleep(xajms::protocol::kRetrySeconds);
    }
    return 0;
}

// Folds one listener's answer into the result: no answer sets XAER_RMFAIL outright, a
// non-negative answer replaces the result, a negative one only lowers it.
void combine(FanOut &f, int answer) {
    f.last = answer;
    if (answer == kNoAnswer) {
        f.result = XAER_RMFAIL;
        return;
    }
    xajms::trace::data(sockettraceJMSfile, kXASocket, kFanOut, " received JDBC Provider rcode %d",
                       answer);
    if (answer >= 0 || answer < f.result) {
        f.result = answer;
    }
}

// Hardened fold. A listener that was not reached, or whose answer never came, counts as
// XAER_RMFAIL. The first answer that is neither XA_OK nor a no-work answer (XA_RDONLY, or
// XAER_NOTA: the listener holds no branch of the XID) stands: a rollback vote or an error is
// never overwritten. Otherwise XA_OK wins over no-work answers, so read-only is the result
// only when every listener had no work; to a prepare, XAER_NOTA is a read-only vote.
void foldHardened(FanOut &f, int answer) {
    f.last = answer;
    int code = answer == kNoAnswer ? XAER_RMFAIL : answer;
    if (answer != kNoAnswer) {
        xajms::trace::data(sockettraceJMSfile, kXASocket, kFanOut,
                           " received JDBC Provider rcode %d", answer);
    }
    if (f.msgType == xajms::protocol::kPrepare && code == XAER_NOTA) {
        code = XA_RDONLY;
    }
    auto decides = [](int c) { return c != XA_OK && c != XA_RDONLY && c != XAER_NOTA; };
    if (!f.folded || (!decides(f.result) && (decides(code) || code == XA_OK))) {
        f.result = code;
    }
    f.folded = true;
}

// Reads a completion answer as receiveXARC_jms does; readResult gets what the timed read
// returned (-99 after a time-out, -1 when it failed or the connection was closed).
int receiveAnswer(int sockfd, unsigned char *answer, int &readResult) {
    xajms::trace::entryData(sockettraceJMSfile, kXASocket, kReceive, "sockfd = %d", sockfd);
    std::memset(answer, 0, xajms::protocol::kAnswerSize);
    int rc = kNoAnswer;
    readResult = readFromSocket_jms(sockfd, answer, xajms::protocol::kAnswerSize,
                                    xajms::protocol::kAnswerTimeout);
    if (readResult > 0) {
        xajms::trace::data(sockettraceJMSfile, kXASocket, kReceive, "read %d bytes", readResult);
        rc = getInt_jms(answer);
        xajms::trace::data(sockettraceJMSfile, kXASocket, kReceive,
                           "Return code from XAHandler = %d", rc);
    }
    traceJMSExit(sockettraceJMSfile, kXASocket, kReceive);
    return rc;
}

// How one hardened exchange ended.
enum class Exchange { kAnswered, kUndelivered, kSilent };

// Sends the request on the socket and reads the answer into code. kUndelivered: the request
// could not be written, or the connection ended without an answer (its listener restarted or
// reset it); kSilent: the listener kept the connection but did not answer in time.
Exchange exchange(int port, int sockfd, const unsigned char *request, int msgSize, int &code) {
    xajms::trace::data(sockettraceJMSfile, kXASocket, kFanOut, " obtained sockfd=%d for port=%d",
                       sockfd, port);
    const long sent = xajms::protocol::sendRequest(sockfd, request, msgSize);
    if (sent < 0) {
        traceJMSData(sockettraceJMSfile, kXASocket, kFanOut, ": <ERROR> failure writing on socket");
        return Exchange::kUndelivered;
    }
    xajms::trace::data(sockettraceJMSfile, kXASocket, kFanOut, " wrote %d bytes",
                       static_cast<int>(sent));
    unsigned char answer[xajms::protocol::kAnswerSize];
    int readResult = 0;
    code = receiveAnswer(sockfd, answer, readResult);
    if (code != kNoAnswer) {
        return Exchange::kAnswered;
    }
    return readResult == kNoAnswer ? Exchange::kSilent : Exchange::kUndelivered;
}

// Hardened: asks the listener on one port. A request that was not delivered is sent once more
// on a fresh connection; a socket whose exchange failed is replaced, and no other. A port
// that no connection can reach is marked dead. Folds one answer, XAER_RMFAIL for none.
void askHardened(int port, const unsigned char *request, int msgSize, FanOut &f) {
    int sockfd = 0;
    connectionSocketPool_jms(port, &sockfd, xajms::pool::kActionGet);
    for (int attempt = 0;; ++attempt) {
        if (sockfd < 1) {
            markBrokerPortDead_jms(port);
            foldHardened(f, kNoAnswer);
            return;
        }
        int code = kNoAnswer;
        const Exchange ended = exchange(port, sockfd, request, msgSize, code);
        if (ended == Exchange::kAnswered) {
            connectionSocketPool_jms(port, &sockfd, xajms::pool::kActionReturn);
            foldHardened(f, code);
            return;
        }
        connectionSocketPool_jms(port, &sockfd, xajms::pool::kActionRefresh);
        if (ended == Exchange::kSilent || attempt == 1) {
            foldHardened(f, kNoAnswer);
            return;
        }
        sockfd = xajms::pool::getFresh(port);
    }
}

// Asks the listener on one port. Returns false when the request could not be written: the
// fan-out then ends and the socket stays with this caller.
bool askListener(int port, const unsigned char *request, int msgSize, FanOut &f) {
    int sockfd = 0;
    connectionSocketPool_jms(port, &sockfd, xajms::pool::kActionGet);
    if (sockfd < 1) {
        markBrokerPortDead_jms(port);
        f.last = kNoAnswer;
        return true;
    }
    xajms::trace::data(sockettraceJMSfile, kXASocket, kFanOut, " obtained sockfd=%d for port=%d",
                       sockfd, port);
    const long sent = xajms::protocol::sendRequest(sockfd, request, msgSize);
    if (sent < 0) {
        traceJMSData(sockettraceJMSfile, kXASocket, kFanOut, ": <ERROR> failure writing on socket");
        f.last = kNoAnswer;
        xajms::pool::abandon(sockfd);
        return false;
    }
    xajms::trace::data(sockettraceJMSfile, kXASocket, kFanOut, " wrote %d bytes",
                       static_cast<int>(sent));
    unsigned char answer[xajms::protocol::kAnswerSize];
    const int code = receiveXARC_jms(sockfd, answer);
    connectionSocketPool_jms(port, &sockfd, xajms::pool::kActionReturn);
    if (code == kNoAnswer) {
        // The connection may still carry the late answer: it is replaced by a fresh one.
        connectionSocketPool_jms(port, &sockfd, xajms::pool::kActionRefresh);
    }
    combine(f, code);
    return true;
}

}  // namespace

extern "C" {

// Reads a listener's 4-byte answer into the buffer. Returns the listener's XA code, or -99
// when nothing was read within 60 seconds (time-out, error or a closed connection). A null
// buffer reads into the routine's own four bytes.
int receiveXARC_jms(int sockfd, unsigned char *buffer) {
    unsigned char own[xajms::protocol::kAnswerSize];
    int readResult = 0;
    return receiveAnswer(sockfd, buffer != nullptr ? buffer : own, readResult);
}

// Sends the request to every listener the registry lists and returns the combined XA code:
// XAER_RMFAIL when no port can be found, XA_OK when no listener could be reached, else the
// fold of the answers (see combine). A null xid sends the bare header. A hardened process
// asks every listener, whatever happened before, and folds by foldHardened.
int callEGListeners_jms(const XID *xid, int rmid, long flags, int msgType) {
    using namespace xajms::protocol;
    xajms::trace::entryData(sockettraceJMSfile, kXASocket, kFanOut, "rmid = %d,msgtype=%d,", rmid,
                            msgType);
    unsigned char flat[kFlatXidClear] = {};
    int flatSize = 0;
    if (xid != nullptr) {
        flatSize = flattenXIDtoJavaTypes_jms(flat, xid);
        traceJMSformattedXID(sockettraceJMSfile, kXASocket, kFanOut, xid);
    }
    const int msgSize = kHeaderSize + flatSize;
    int ports[kPortList] = {};
    const int n = std::min(findPorts(ports), kPortList);
    FanOut f;
    f.msgType = msgType;
    if (n == 0) {
        traceJMSData(sockettraceJMSfile, kXASocket, kFanOut,
                     "Broker port number not set in shared memory");
        f.result = XAER_RMFAIL;
    }
    unsigned char request[kRequestBuffer] = {};
    if (n != 0) {
        buildHeader_jms(request, msgSize, msgType, rmid, flags);
        std::memcpy(request + kHeaderSize, flat, static_cast<size_t>(flatSize));
        xajms::trace::data(sockettraceJMSfile, kXASocket, kFanOut, " pBuffer = %s",
                           reinterpret_cast<const char *>(request + kHeaderSize));
    }
    const bool hardened = xajms::pool::hardened();
    for (int i = 0; i < n; ++i) {
        if (hardened) {
            askHardened(ports[i], request, msgSize, f);
        } else if (!askListener(ports[i], request, msgSize, f)) {
            break;
        }
    }
    xajms::trace::exitData(sockettraceJMSfile, kXASocket, kFanOut, " XARC = %d", f.last);
    return f.result;
}

}  // extern "C"
