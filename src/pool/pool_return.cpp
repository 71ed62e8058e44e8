// Giving sockets back to the pool table: a return marks the socket idle and may shrink the
// port's sockets when too many are idle; a refresh closes a broken socket and empties its
// slot. The caller holds the pool lock.
#include "pool/pool.h"

#include <cstdint>

#include "trace/trace.h"

namespace {

using xajms::pool::wrapAdd;
using xajms::trace::kXASocket;

constexpr char kReturn[] = "poolReturn_jms";
constexpr char kRefresh[] = "poolReturnAndRefresh_jms";

bool tracing() {
    return xajms::trace::on(sockettraceJMSfile);
}

// How many idle sockets a return closes: with more than five sockets and a share of idle
// ones above 60 %, the excess share of the sockets, truncated. The counts are taken as they
// stand (available may have drifted); wide arithmetic keeps any stored value harmless.
int64_t reductionFor(const PortRow &row) {
    if (row.rows <= xajms::pool::kShrinkMinimumRows) {
        return 0;
    }
    if (tracing()) {
        xajms::trace::data(sockettraceJMSfile, kXASocket, kReturn,
                           "Checking if need to reduce pool - port %d nbr of sockets = %d",
                           row.port, row.rows);
    }
    const int64_t share = int64_t{row.available} * 100 / row.rows;
    if (share <= xajms::pool::kIdleShareLimit) {
        return 0;
    }
    const int64_t reduction = (share - xajms::pool::kIdleShareLimit) * row.rows / 100;
    if (tracing()) {
        xajms::trace::data(sockettraceJMSfile, kXASocket, kReturn,
                           "Reducing pool total=%d avail=%d reduction=%d", row.rows, row.available,
                           static_cast<int>(reduction));
    }
    return reduction;
}

void traceDecremented(const char *function, const PortRow &row) {
    if (tracing()) {
        xajms::trace::data(sockettraceJMSfile, kXASocket, function,
                           "Decremented socket connection pool slots. Rows=%d Available=%d ",
                           row.rows, row.available);
    }
}

// Closes idle sockets from the top slot down until the reduction is reached or slot 0 has
// been passed. Every idle slot counts, an emptied one too (its descriptor 0 is left open).
void shrink(PortRow &row, int64_t reduction) {
    int64_t closed = 0;
    for (int i = xajms::pool::liveSlots(row) - 1; i >= 0 && closed < reduction; --i) {
        if (tracing()) {
            xajms::trace::data(sockettraceJMSfile, kXASocket, kReturn,
                               "Attempting to reduce active pool at row %d", i);
        }
        SocketSlot &slot = row.slot[i];
        if (slot.inUse != 0) {
            continue;
        }
        if (tracing()) {
            xajms::trace::data(sockettraceJMSfile, kXASocket, kReturn,
                               "Reducing active pool, closing socket %d", slot.sockfd);
        }
        xajms::pool::shutAndClose(slot.sockfd);
        slot = SocketSlot{0, 0};
        row.available = wrapAdd(row.available, -1);
        closed += 1;
        if (i == row.rows - 1) {
            xajms::pool::lowerRows(row);
            traceDecremented(kReturn, row);
        }
    }
}

}  // namespace

extern "C" {

// Marks the socket idle in the port's row and shrinks the row when too many of its sockets
// are idle. A descriptor that the row does not hold changes nothing but the shrink check.
void poolReturn_jms(int port, int returnSockfd) {
    if (tracing()) {
        xajms::trace::entryData(sockettraceJMSfile, kXASocket, kReturn, "port=%d, returnSockfd=%d",
                                port, returnSockfd);
    }
    ConnectionPool &pool = processConnectionPool_jms;
    for (int r = 0; r < xajms::pool::usedPorts(); ++r) {
        PortRow &row = pool.row[r];
        if (row.port != port) {
            continue;
        }
        traceJMSData(sockettraceJMSfile, kXASocket, kReturn, "matched port");
        const int i = xajms::pool::findSlot(row, returnSockfd);
        if (i >= 0) {
            traceJMSData(sockettraceJMSfile, kXASocket, kReturn, "matched sockfd");
            row.slot[i].inUse = 0;
            row.available = wrapAdd(row.available, 1);
            if (tracing()) {
                xajms::trace::data(sockettraceJMSfile, kXASocket, kReturn,
                                   "Socket rows=%d available=%d", row.rows, row.available);
            }
        }
        const int64_t reduction = reductionFor(row);
        if (reduction > 0) {
            shrink(row, reduction);
        }
        if (i >= 0) {
            break;
        }
    }
    if (tracing()) {
        traceJMSExit(sockettraceJMSfile, kXASocket, kReturn);
    }
}

// Closes a broken socket given back by its holder and empties its slot in every row of the
// port. Returns -1 whatever happened.
int poolReturnAndRefresh_jms(int port, int returnSockfd) {
    if (tracing()) {
        xajms::trace::entryData(sockettraceJMSfile, kXASocket, kRefresh, "port=%d, returnSockfd=%d",
                                port, returnSockfd);
    }
    ConnectionPool &pool = processConnectionPool_jms;
    for (int r = 0; r < xajms::pool::usedPorts(); ++r) {
        PortRow &row = pool.row[r];
        if (row.port != port) {
            continue;
        }
        if (tracing()) {
            xajms::trace::data(sockettraceJMSfile, kXASocket, kRefresh,
                               "found pool entry for port=%d and closing sockfd ", port);
        }
        const int i = row.rows > 0 ? xajms::pool::findSlot(row, returnSockfd) : -1;
        if (i < 0) {
            continue;
        }
        SocketSlot &slot = row.slot[i];
        // A socket that another caller took meanwhile is left open to it (see poolClear_jms).
        if (slot.inUse == 0 || !xajms::pool::detachIfHeld(slot.sockfd, true)) {
            xajms::pool::shutAndClose(slot.sockfd);  // the slot holds returnSockfd
        }
        if (tracing()) {
            xajms::trace::data(sockettraceJMSfile, kXASocket, kRefresh, "closed sockfd %d",
                               slot.sockfd);
        }
        slot = SocketSlot{0, 0};
        // A hardened caller refreshes a socket it still holds, which was never counted idle.
        if (!xajms::pool::hardened()) {
            row.available = wrapAdd(row.available, -1);
        }
        if (i == row.rows - 1) {
            xajms::pool::lowerRows(row);
            traceDecremented(kRefresh, row);
        }
    }
    traceJMSExit(sockettraceJMSfile, kXASocket, kRefresh);
    return xajms::pool::kRefreshResult;
}

}  // extern "C"
