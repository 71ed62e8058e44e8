// The recovery requests: reading one listener's recover reply, asking every listener the
// registry lists for its in-doubt XIDs, and asking the start-up recovery listener before
// telling it to end its Java process.
#include "protocol/protocol.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <utility>

#include "pool/pool.h"
#include "trace/trace.h"

extern "C" {
int flFirstStartUpRecovery_jms = 0;
}

namespace {

using xajms::protocol::kNoAnswer;
using xajms::trace::kXASocket;

constexpr char kReceive[] = "receiveRecoverMsg";
constexpr char kBroker[] = "sendBrokerXARecover";
constexpr char kStartUp[] = "sendStartUpXARecover_jms";

// The four 4-byte fields that open a recover reply (the third one is not used).
struct ReplyHead {
    int count = 0;
    int size = 0;
};

// Reads one 4-byte field into the start of the buffer and decodes it. False when the read
// brought nothing.
bool readField(int sockfd, unsigned char *buffer, int &value) {
    if (readFromSocket_jms(sockfd, buffer, 4, xajms::protocol::kRecoverTimeout) <= 0) {
        return false;
    }
    value = getInt_jms(buffer);
    return true;
}

bool readHead(int sockfd, unsigned char *buffer, ReplyHead &head) {
    int ignored = 0;
    if (!readField(sockfd, buffer, ignored)) {
        return false;
    }
    xajms::trace::data(sockettraceJMSfile, kXASocket, kReceive, "XA_RECOVER  msg type = %x",
                       xajms::protocol::kRecover);
    if (!readField(sockfd, buffer, head.count)) {
        return false;
    }
    xajms::trace::data(sockettraceJMSfile, kXASocket, kReceive, "xidcount = %d", head.count);
    if (!readField(sockfd, buffer, ignored) || !readField(sockfd, buffer, head.size)) {
        return false;
    }
    xajms::trace::data(sockettraceJMSfile, kXASocket, kReceive, "xiddatasize = %d", head.size);
    return true;
}

// A reply that cannot be taken is a failed read: as after any failed read, every pooled
// socket of the process is closed, since the connection may still carry unread bytes. A
// hardened caller replaces its own socket instead.
void dropPool() {
    if (xajms::pool::hardened()) {
        return;
    }
    lockConnectionPool_jms();
    poolClear_jms(xajms::pool::kAllPorts);
    unlockConnectionPool_jms();
}

// Reads the records of a reply whose head announced them. Returns the XIDs (rc 0), or null:
// rc 0 for a reply without records, rc untouched (XAER_RMFAIL) when the records could not be
// read, held or taken apart within the size they arrived in.
XID *readRecords(int sockfd, const ReplyHead &head, int &rc) {
    if (head.size < 1 || head.count < 1) {
        xajms::trace::data(sockettraceJMSfile, kXASocket, kReceive, "xiddatasize = %d", head.size);
        rc = XA_OK;
        return nullptr;
    }
    auto *data = static_cast<unsigned char *>(std::malloc(static_cast<size_t>(head.size)));
    if (data == nullptr) {
        dropPool();
        return nullptr;
    }
    XID *xids = nullptr;
    const int got = readFromSocket_jms(sockfd, data, head.size, xajms::protocol::kRecoverTimeout);
    if (got >= 1 && !xajms::protocol::recordsFit(data, head.size, head.count)) {
        dropPool();
    } else if (got >= 1) {
        traceJMSData(sockettraceJMSfile, kXASocket, kReceive, "Have read the XID data into buffer");
        xids = extractXIDs_jms(data, head.count);
        if (xids == nullptr) {
            traceJMSData(sockettraceJMSfile, kXASocket, kReceive, "No XIDs returned");
        }
    }
    std::free(data);
    if (xids != nullptr) {
        xajms::trace::data(sockettraceJMSfile, kXASocket, kReceive, "xidcount = %d", head.count);
        rc = XA_OK;
    }
    return xids;
}

// The number of records that a reply of `received` records leaves with a caller whose array
// holds `count`: the smaller of the two (a count below INT_MIN reads as INT_MIN). Copies
// that many records to the start of the caller's array, none when the array is null or
// holds none, and releases the reply's XIDs.
int keepRecords(XID *xids, long count, XID *array, int received) {
    const long stored = std::max<long>(std::min<long>(received, count), INT_MIN);
    if (array != nullptr && xids != nullptr && stored > 0) {
        std::memcpy(xids, array, static_cast<size_t>(stored) * sizeof(XID));
    }
    std::free(array);
    return static_cast<int>(stored);
}

// The recover request: the 20-byte header with msgSize 0, in a cleared request buffer.
void buildRecoverRequest(unsigned char *request, int rmid, long flags) {
    std::memset(request, 0, xajms::protocol::kRequestBuffer);
    buildHeader_jms(request, 0, xajms::protocol::kRecover, rmid, flags);
}

// Looks ports up for broker recovery: pending ports, else broker ports, else the start-up
// recovery port, whose number is then taken as the number of entries (kept so). At most
// fifteen attempts, a second of sleep after each miss. Returns n; 0 when nothing was found.
int findRecoverPorts(int *ports) {
    for (int attempt = 0; attempt < xajms::protocol::kBrokerRecoverAttempts; ++attempt) {
        void *mapping = GetSharedMemory_jms();
        int n = GetPendingPort_jms(mapping, ports);
        if (n == 0) {
            n = GetBrokerPorts_jms(mapping, ports);
        }
        if (n == 0) {
            n = GetStartUpRecoveryPort_jms(mapping);
        }
        xajms::trace::data(sockettraceJMSfile, kXASocket, kBroker, "Number of ports = %d", n);
        if (n != 0) {
            return n;
        }
        sleep(xajms::protocol::kRetrySeconds);
    }
    return 0;
}

// What the broker recovery keeps across listeners: rc and received are never reset.
struct Recovery {
    int rc = kNoAnswer;
    int received = 0;
    int sockfd = 0;
};

// Asks the listener on one port for its XIDs; its records go to the start of the caller's
// array, over those of any earlier listener.
void askForXids(int port, const unsigned char *request, XID *xids, long count, Recovery &r) {
    xajms::trace::data(sockettraceJMSfile, kXASocket, kBroker, "sending on port  = %d", port);
    connectionSocketPool_jms(port, &r.sockfd, xajms::pool::kActionGet);
    if (r.sockfd <= 0) {
        return;
    }
    if (xajms::protocol::sendRequest(r.sockfd, request, xajms::protocol::kHeaderSize) < 0) {
        traceJMSData(sockettraceJMSfile, kXASocket, kBroker, " <ERROR> failure writing on socket");
    }
    unsigned char reply[xajms::protocol::kRecoverBuffer];
    XID *array = receiveRecoverMsg_jms(r.sockfd, &r.received, reply, &r.rc);
    xajms::trace::data(sockettraceJMSfile, kXASocket, kBroker,
                       "received recovery message rc = %d count = %d", r.rc, r.received);
    if (r.received > 0) {
        r.rc = keepRecords(xids, count, array, r.received);
    } else {
        std::free(array);
    }
    connectionSocketPool_jms(port, &r.sockfd, xajms::pool::kActionReturn);
}

// Looks the start-up recovery port up, at most five times with a second of sleep after each
// miss. Returns the port, or 0.
int findStartUpPort() {
    for (int attempt = 0; attempt < xajms::protocol::kRecoveryPortAttempts; ++attempt) {
        void *mapping = GetSharedMemory_jms();
        traceJMSData(sockettraceJMSfile, kXASocket, kStartUp,
                     "Got Shared memory - Check for Port ");
        const int port = GetStartUpRecoveryPort_jms(mapping);
        xajms::trace::data(sockettraceJMSfile, kXASocket, kStartUp, "PortNumber = %d", port);
        if (port != 0) {
            return port;
        }
        sleep(xajms::protocol::kRetrySeconds);
    }
    return 0;
}

// Asks the start-up recovery listener, at most twice while no socket can be had. Returns
// false when the request could not be written (the socket then stays with this caller).
bool askStartUpListener(int port, int rmid, long flags, XID *xids, long count, Recovery &r) {
    for (int attempt = 0; attempt < xajms::protocol::kStartUpSocketAttempts;) {
        connectionSocketPool_jms(port, &r.sockfd, xajms::pool::kActionGet);
        if (r.sockfd < 1) {
            attempt += 1;
            sleep(xajms::protocol::kRetrySeconds);
            if (r.rc != kNoAnswer) {
                break;
            }
            continue;
        }
        unsigned char request[xajms::protocol::kRequestBuffer];
        buildRecoverRequest(request, rmid, flags);
        if (xajms::protocol::sendRequest(r.sockfd, request, xajms::protocol::kHeaderSize) < 0) {
            xajms::pool::abandon(r.sockfd);
            return false;
        }
        unsigned char reply[xajms::protocol::kRecoverBuffer];
        XID *array = receiveRecoverMsg_jms(r.sockfd, &r.received, reply, &r.rc);
        xajms::trace::data(
            sockettraceJMSfile, kXASocket, kStartUp, "plocalxid = %X rc = %d count = %d",
            static_cast<unsigned>(reinterpret_cast<uintptr_t>(array)), r.rc, r.received);
        if (r.rc >= 0) {
            r.rc = keepRecords(xids, count, array, r.received);
        } else {
            std::free(array);
        }
        attempt += 1;
        if (r.rc != kNoAnswer) {
            break;
        }
    }
    return true;
}

// Hardened recovery: the XIDs of each listener's reply, kept until every listener is heard.
struct Reply {
    XID *xids = nullptr;
    int count = 0;
};

// Orders XIDs by format identifier, lengths, then data bytes: the order of a recovery scan,
// the same on every call whatever order the listeners report in.
int compareXids(const XID &a, const XID &b) {
    const std::array<std::pair<long, long>, 3> heads = {{{a.formatID, b.formatID},
                                                         {a.gtrid_length, b.gtrid_length},
                                                         {a.bqual_length, b.bqual_length}}};
    for (const auto &[x, y] : heads) {
        if (x != y) {
            return x < y ? -1 : 1;
        }
    }
    const long bytes = xajms::protocol::dataBytes(a.gtrid_length, a.bqual_length);
    return std::memcmp(a.data, b.data, static_cast<size_t>(bytes));
}

// Stores the distinct XIDs of the replies in scan order, from position skip on, at most
// count of them: each reply is sorted in place, then the replies are merged, an XID reported
// by several listeners (or twice by one) taken once. Returns the number stored. The work
// grows with the XIDs handed out and the number of listeners, never with their square.
int storeDistinct(std::span<Reply> replies, XID *xids, long count, long skip) {
    auto less = [](const XID &a, const XID &b) { return compareXids(a, b) < 0; };
    for (Reply &reply : replies) {
        std::sort(reply.xids, reply.xids + reply.count, less);
    }
    std::array<int, xajms::protocol::kPortList> next{};
    long position = 0;
    int stored = 0;
    while (stored < count) {
        const XID *least = nullptr;
        for (size_t r = 0; r < replies.size(); ++r) {
            const int i = next[r];
            if (i < replies[r].count && (least == nullptr || less(replies[r].xids[i], *least))) {
                least = &replies[r].xids[i];
            }
        }
        if (least == nullptr) {
            break;
        }
        const XID chosen = *least;
        for (size_t r = 0; r < replies.size(); ++r) {
            while (next[r] < replies[r].count &&
                   compareXids(replies[r].xids[next[r]], chosen) == 0) {
                next[r] += 1;
            }
        }
        if (position >= skip) {
            xids[stored++] = chosen;
        }
        position += 1;
    }
    return stored;
}

// Asks one listener for its XIDs, once more on a fresh connection when the request could not
// be written or the reply not read; a socket whose exchange failed is replaced, and a port no
// connection reaches is marked dead. Returns XA_OK with the reply, else XAER_RMFAIL.
int askOnce(int port, const unsigned char *request, Reply &reply) {
    xajms::trace::data(sockettraceJMSfile, kXASocket, kBroker, "sending on port  = %d", port);
    int sockfd = 0;
    connectionSocketPool_jms(port, &sockfd, xajms::pool::kActionGet);
    for (int attempt = 0; sockfd > 0; ++attempt) {
        int rc = XAER_RMFAIL;
        if (xajms::protocol::sendRequest(sockfd, request, xajms::protocol::kHeaderSize) < 0) {
            traceJMSData(sockettraceJMSfile, kXASocket, kBroker,
                         " <ERROR> failure writing on socket");
        } else {
            unsigned char fields[xajms::protocol::kRecoverBuffer];
            reply.xids = receiveRecoverMsg_jms(sockfd, &reply.count, fields, &rc);
            xajms::trace::data(sockettraceJMSfile, kXASocket, kBroker,
                               "received recovery message rc = %d count = %d", rc, reply.count);
        }
        if (rc == XA_OK) {
            connectionSocketPool_jms(port, &sockfd, xajms::pool::kActionReturn);
            return XA_OK;
        }
        connectionSocketPool_jms(port, &sockfd, xajms::pool::kActionRefresh);
        if (attempt == 1) {
            return XAER_RMFAIL;
        }
        sockfd = xajms::pool::getFresh(port);
    }
    markBrokerPortDead_jms(port);
    return XAER_RMFAIL;
}

// The listeners a hardened recover asks: every broker and pending listener, else the start-up
// recovery listener. Returns how many ports were stored, or -1 without a registry.
int hardenedRecoverPorts(int *ports) {
    void *mapping = GetSharedMemory_jms();
    if (mapping == nullptr) {
        return -1;
    }
    int n = GetBrokerPorts_jms(mapping, ports);
    if (n == 0) {
        ports[0] = GetStartUpRecoveryPort_jms(mapping);
        n = ports[0] > 0 ? 1 : 0;
    }
    xajms::trace::data(sockettraceJMSfile, kXASocket, kBroker, "Number of ports = %d", n);
    return n;
}

}  // namespace

namespace xajms::protocol {

int collectXids(XID *xids, long count, long skip, int rmid, long flags) {
    xajms::trace::copyFromEnvironment(sockettraceJMSfile);
    xajms::trace::entryData(sockettraceJMSfile, kXASocket, kBroker, " rmid=%d", rmid);
    int ports[kPortList] = {};
    const int n = std::min(hardenedRecoverPorts(ports), kPortList);
    int rc = n < 0 ? XAER_RMFAIL : XA_OK;
    std::array<Reply, kPortList> replies{};
    unsigned char request[kRequestBuffer];
    buildRecoverRequest(request, rmid, flags);
    for (int i = 0; i < n && rc == XA_OK; ++i) {
        rc = askOnce(ports[i], request, replies[static_cast<size_t>(i)]);
    }
    if (rc == XA_OK && n > 0) {
        rc = storeDistinct(std::span(replies).first(static_cast<size_t>(n)), xids, count, skip);
    }
    for (Reply &reply : replies) {
        std::free(reply.xids);
    }
    xajms::trace::exitData(sockettraceJMSfile, kXASocket, kBroker, "rcode = %d", rc);
    return rc;
}

}  // namespace xajms::protocol

extern "C" {

// Reads one recover reply. Returns the XIDs it carries (*xidcount of them, the caller frees
// them) with *rc 0; null with *rc 0 for a reply without records; null with *rc XAER_RMFAIL
// when the reply could not be read or would not fit the size it announced. Null xidcount,
// buffer or rc arguments are replaced by the routine's own.
XID *receiveRecoverMsg_jms(int sockfd, int *xidcount, unsigned char *buffer, int *rc) {
    traceJMSEntry(sockettraceJMSfile, kXASocket, kReceive);
    int ownRc = 0;
    int &result = rc != nullptr ? *rc : ownRc;
    unsigned char ownBuffer[xajms::protocol::kRecoverBuffer];
    unsigned char *fields = buffer != nullptr ? buffer : ownBuffer;
    result = XAER_RMFAIL;
    std::memset(fields, 0, xajms::protocol::kRecoverBuffer);
    XID *xids = nullptr;
    ReplyHead head;
    if (readHead(sockfd, fields, head)) {
        xids = readRecords(sockfd, head, result);
    }
    if (xids != nullptr && xidcount != nullptr) {
        *xidcount = head.count;
    }
    traceJMSExit(sockettraceJMSfile, kXASocket, kReceive);
    return xids;
}

// Asks every listener for its in-doubt XIDs. Returns the number of XIDs stored by the rules
// of the recovery (later lists overwrite earlier ones, the count is not reset), or a
// negative XA code: XAER_RMFAIL when no listener could be asked or none answered.
int sendBrokerXARecover_jms(XID *xids, long count, int rmid, long flags) {
    using namespace xajms::protocol;
    Recovery r;
    xajms::trace::copyFromEnvironment(sockettraceJMSfile);
    xajms::trace::entryData(sockettraceJMSfile, kXASocket, kBroker, " rmid=%d", rmid);
    // Zeroed, so that entries the look-ups did not fill read as "no port".
    int ports[kPortList] = {};
    const int n = findRecoverPorts(ports);
    if (n <= 0) {
        traceJMSData(sockettraceJMSfile, kXASocket, kBroker, "port number not set for Broker");
    } else {
        unsigned char request[kRequestBuffer];
        buildRecoverRequest(request, rmid, flags);
        // n may be a start-up recovery port number: walk no further than the list.
        const int entries = std::min(n, kPortList);
        for (int i = 0; i < entries; ++i) {
            if (ports[i] != 0) {
                askForXids(ports[i], request, xids, count, r);
            }
        }
    }
    if (r.rc == XAER_RMERR || r.rc == kNoAnswer) {
        r.rc = XAER_RMFAIL;
    }
    xajms::trace::exitData(sockettraceJMSfile, kXASocket, kBroker, "rcode = %d", r.rc);
    return r.rc;
}

// Asks the start-up recovery listener for its in-doubt XIDs and then sends it the close
// that ends its Java process. Returns the number of XIDs stored, or a negative XA code:
// XAER_RMFAIL when there is no recovery port (the close is still sent), when the request
// cannot be written (no close then), or when the listener could not be asked.
int sendStartUpXARecover_jms(XID *xids, long count, int rmid, long flags) {
    Recovery r;
    if (flFirstStartUpRecovery_jms == 0) {
        initializeConnectionPoolLock_jms();
        flFirstStartUpRecovery_jms = 1;
    }
    xajms::trace::entryData(sockettraceJMSfile, kXASocket, kStartUp, "rmid = %d", rmid);
    const int port = findStartUpPort();
    if (port == 0) {
        traceJMSData(sockettraceJMSfile, kXASocket, kStartUp,
                     "Broker port number not set in shared memory");
        sendXAClose_jms(xajms::protocol::kCloseText, rmid, flags);
        traceJMSExit(sockettraceJMSfile, kXASocket, kStartUp);
        return XAER_RMFAIL;
    }
    xajms::trace::data(sockettraceJMSfile, kXASocket, kStartUp,
                       "Shared memory port number for Recovery %d", port);
    if (!askStartUpListener(port, rmid, flags, xids, count, r)) {
        traceJMSExitData(sockettraceJMSfile, kXASocket, kStartUp, "ERROR writing on socket");
        return XAER_RMFAIL;
    }
    if (r.sockfd > 0) {
        // Hardened, a socket whose reply failed is replaced rather than pooled again.
        const bool failed = xajms::pool::hardened() && r.rc < 0;
        connectionSocketPool_jms(port, &r.sockfd,
                                 failed ? xajms::pool::kActionRefresh : xajms::pool::kActionReturn);
    }
    if (r.rc == kNoAnswer || r.rc == XAER_RMERR) {
        r.rc = XAER_RMFAIL;
    }
    sendXAClose_jms(xajms::protocol::kCloseText, rmid, flags);
    traceJMSExit(sockettraceJMSfile, kXASocket, kStartUp);
    return r.rc;
}

}  // extern "C"
