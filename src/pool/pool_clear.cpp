// Clearing the pool table for one port or for all ports: every live slot is shut down,
// closed and emptied, in use or not, while the rows and their counters stay as they are; a
// socket that a caller holds is closed when its holder gives it back. The caller holds the
// pool lock.
#include "pool/pool.h"

#include "trace/trace.h"

namespace {

using xajms::trace::kXASocket;

constexpr char kEnds[] = "poolClear_jms";
constexpr char kFunction[] = "poolClear";

}  // namespace

extern "C" {

// Closes the sockets of the port's row, or of every row when port is -1. An emptied slot's
// descriptor 0 names no socket and is left alone (see shutAndClose). A held socket stays open
// until its holder gives it back: were its number reused by the next connection meanwhile,
// the holder would read the answer meant for that connection's caller. A hardened process
// leaves held sockets in their slots (each holder returns or replaces its own).
void poolClear_jms(int port) {
    const bool tracing = xajms::trace::on(sockettraceJMSfile);
    if (tracing) {
        xajms::trace::entryData(sockettraceJMSfile, kXASocket, kEnds, "port=%d", port);
    }
    ConnectionPool &pool = processConnectionPool_jms;
    const int used = xajms::pool::usedPorts();
    for (int r = 0; r < used; ++r) {
        PortRow &row = pool.row[r];
        if (port != xajms::pool::kAllPorts && row.port != port) {
            continue;
        }
        if (tracing) {
            traceJMSData(sockettraceJMSfile, kXASocket, kFunction, "matched port");
        }
        const int live = xajms::pool::liveSlots(row);
        for (int i = 0; i < live; ++i) {
            if (row.slot[i].inUse != 0 && xajms::pool::hardened()) {
                continue;
            }
            const int sockfd = row.slot[i].sockfd;
            if (row.slot[i].inUse == 0 || !xajms::pool::detachIfHeld(sockfd, false)) {
                xajms::pool::shutAndClose(sockfd);
            }
            if (tracing) {
                xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction, "closing sockfd %d",
                                   sockfd);
            }
            row.slot[i] = SocketSlot{0, 0};
        }
    }
    traceJMSExit(sockettraceJMSfile, kXASocket, kEnds);
}

}  // extern "C"
