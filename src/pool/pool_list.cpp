// A diagnostic listing of the whole pool table into the socket trace: every port row with
// its counters and all 30 of its slots. Nothing in the library calls it.
#include "pool/pool.h"

#include "trace/trace.h"

namespace {

using xajms::trace::kXASocket;

constexpr char kFunction[] = "poolListContents_jms";

}  // namespace

extern "C" {

// Writes nothing unless the socket trace is on. Takes no lock.
void poolListContents(void) {
    if (!xajms::trace::on(sockettraceJMSfile)) {
        return;
    }
    traceJMSEntry(sockettraceJMSfile, kXASocket, kFunction);
    const ConnectionPool &pool = processConnectionPool_jms;
    const int used = xajms::pool::usedPorts();
    for (int r = 0; r < used; ++r) {
        const PortRow &row = pool.row[r];
        xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction, "port=%d #rows=%d #avail=%d",
                           row.port, row.rows, row.available);
        for (const SocketSlot &slot : row.slot) {
            xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction, "==> sockfd=%d inUse=%d",
                               slot.sockfd, slot.inUse);
        }
    }
    traceJMSExit(sockettraceJMSfile, kXASocket, kFunction);
}

}  // extern "C"
