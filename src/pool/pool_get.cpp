// Getting a socket for a port from the pool table: the port's row is found or appended, an
// idle socket is preferred, an emptied slot is refilled, and a new socket is added only when
// no live slot can be had. The caller holds the pool lock.
#include "pool/pool.h"

#include "trace/trace.h"

namespace {

using xajms::pool::kMaxPorts;
using xajms::pool::kMaxSockets;
using xajms::pool::kNoSocket;
using xajms::trace::kXASocket;

constexpr char kFunction[] = "poolGetNext";
// The limit lines carry the operation's full name.
constexpr char kLimitFunction[] = "poolGetNext_jms";

bool tracing() {
    return xajms::trace::on(sockettraceJMSfile);
}

// Returns the port's row, appending one when the port is new, or null when it is new and
// no row is left. A numPorts outside 0 .. 499 leaves no row to append at.
PortRow *findOrAddRow(int port) {
    ConnectionPool &pool = processConnectionPool_jms;
    if (pool.numPorts == 0) {
        if (tracing()) {
            xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction,
                               "first entry in Pool using port %d", port);
        }
        pool.numPorts = 1;
        pool.row[0].port = port;
        pool.row[0].rows = 0;
        return &pool.row[0];
    }
    traceJMSData(sockettraceJMSfile, kXASocket, kFunction, "ConnectionPool is already active");
    const int used = xajms::pool::usedPorts();
    for (int r = 0; r < used; ++r) {
        if (pool.row[r].port == port) {
            if (tracing()) {
                xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction,
                                   " found existing row for port %d", port);
            }
            return &pool.row[r];
        }
    }
    if (pool.numPorts >= kMaxPorts || pool.numPorts < 0) {
        return nullptr;
    }
    if (tracing()) {
        xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction,
                           "creating new slot for port=%d", port);
    }
    PortRow &row = pool.row[pool.numPorts];
    row.port = port;
    row.rows = 0;
    row.available = 0;
    pool.numPorts += 1;
    return &row;
}

// The row has no live slot: connects into slot 0. Returns the descriptor or 0.
int firstConnection(PortRow &row, int port) {
    if (tracing()) {
        xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction,
                           "first connection socket for port=%d", port);
    }
    const int sockfd = makeConnection_jms(port);
    if (sockfd > 0) {
        if (tracing()) {
            xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction,
                               "obtained new sockfd %d for port %d ", sockfd, port);
        }
        row.slot[0] = SocketSlot{sockfd, 1};
        row.rows = 1;
    }
    traceJMSExit(sockettraceJMSfile, kXASocket, kFunction);
    return sockfd;
}

void traceCounts(const PortRow &row, int port) {
    if (tracing()) {
        xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction,
                           "port=%d : Socket rows=%d available=%d ", port, row.rows, row.available);
    }
}

// Scans the live slots for an idle socket, refilling emptied slots on the way. Returns the
// descriptor of the slot taken, or 0 when none could be taken.
int takeIdleSlot(PortRow &row, int port) {
    for (int i = 0; i < row.rows && i < kMaxSockets; ++i) {
        SocketSlot &slot = row.slot[i];
        if (slot.inUse != 0) {
            continue;
        }
        if (slot.sockfd == 0) {
            const int sockfd = makeConnection_jms(port);
            if (sockfd <= 0) {
                continue;
            }
            slot.sockfd = sockfd;
            if (tracing()) {
                xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction,
                                   "reusing row %d for sockfd %d for port %d", i, sockfd, port);
            }
        } else {
            if (tracing()) {
                xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction,
                                   "retrieved sockfd %d for port %d", slot.sockfd, port);
            }
            if (slot.sockfd <= 0) {
                continue;
            }
        }
        slot.inUse = 1;
        if (row.available > 0) {
            row.available -= 1;
        }
        traceCounts(row, port);
        traceJMSExit(sockettraceJMSfile, kXASocket, kFunction);
        return slot.sockfd;
    }
    return xajms::pool::kNoSocket;
}

// No live slot could be taken: adds a socket above the live slots unless the row is full.
// Returns the descriptor, 0 when no connection was made, or -1 for a full row (then without
// an exit line).
int addSocket(PortRow &row, int port) {
    if (row.rows >= kMaxSockets || row.rows < 0) {
        xajms::trace::data(sockettraceJMSfile, kXASocket, kLimitFunction,
                           "Reached maximum sockets for port %d so retrying", port);
        return xajms::pool::kSocketsExhausted;
    }
    const int sockfd = makeConnection_jms(port);
    if (sockfd > 0) {
        if (tracing()) {
            xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction,
                               "no available sockfd's so got new sockfd %d  for port %d", sockfd,
                               port);
        }
        row.slot[row.rows] = SocketSlot{sockfd, 1};
        row.rows += 1;
    }
    traceCounts(row, port);
    traceJMSExit(sockettraceJMSfile, kXASocket, kFunction);
    return sockfd;
}

// The first idle emptied slot among the live ones, or -1.
int emptySlot(const PortRow &row) {
    for (int i = 0; i < xajms::pool::liveSlots(row); ++i) {
        if (row.slot[i].inUse == 0 && row.slot[i].sockfd == 0) {
            return i;
        }
    }
    return -1;
}

// Connects into the emptied slot i. Returns the descriptor, now in use, or 0.
int connectInto(PortRow &row, int i, int port) {
    const int sockfd = makeConnection_jms(port);
    if (sockfd > 0) {
        row.slot[i] = SocketSlot{sockfd, 1};
        if (tracing()) {
            xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction,
                               "reusing row %d for sockfd %d for port %d", i, sockfd, port);
        }
    }
    traceCounts(row, port);
    traceJMSExit(sockettraceJMSfile, kXASocket, kFunction);
    return sockfd;
}

}  // namespace

namespace xajms::pool {

int getFresh(int port) {
    lockConnectionPool_jms();
    if (tracing()) {
        xajms::trace::entryData(sockettraceJMSfile, kXASocket, kFunction, "port=%d", port);
    }
    int sockfd = kNoSocket;
    PortRow *row = findOrAddRow(port);
    if (row == nullptr) {
        traceJMSExitData(sockettraceJMSfile, kXASocket, kLimitFunction,
                         "Reached maximum slots for listener port numbers ");
    } else {
        const int i = emptySlot(*row);
        sockfd = i >= 0 ? connectInto(*row, i, port) : addSocket(*row, port);
    }
    unlockConnectionPool_jms();
    return sockfd > 0 ? sockfd : kNoSocket;
}

}  // namespace xajms::pool

extern "C" {

// Returns a descriptor (> 0) now marked in use, 0 when no connection could be made, -1 when
// all 30 sockets of the port are in use, -2 when the port is new and the table is full.
int poolGetNext_jms(int port) {
    if (tracing()) {
        xajms::trace::entryData(sockettraceJMSfile, kXASocket, kFunction, "port=%d", port);
    }
    PortRow *row = findOrAddRow(port);
    if (row == nullptr) {
        traceJMSExitData(sockettraceJMSfile, kXASocket, kLimitFunction,
                         "Reached maximum slots for listener port numbers ");
        return xajms::pool::kPortsExhausted;
    }
    if (row->rows == 0) {
        return firstConnection(*row, port);
    }
    if (tracing()) {
        xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction,
                           "checking existing sockfd's for port %d", port);
    }
    const int sockfd = takeIdleSlot(*row, port);
    if (sockfd > 0) {
        return sockfd;
    }
    return addSocket(*row, port);
}

}  // extern "C"
