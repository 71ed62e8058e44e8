// The two marks that retire a listener's row by setting its mode to dead: a process's own
// start-up-recovery row, and the first row that holds a given port (whose pooled sockets
// are dropped as well). Both scan rows 0 to row count inclusive, stopped at the last row.
#include "registry/registry.h"

#include <unistd.h>

#include "pool/pool.h"
#include "trace/trace.h"

namespace {

using xajms::registry::File;
using xajms::registry::load;
using xajms::registry::Row;
using xajms::trace::kXASocket;
namespace registry = xajms::registry;

// Marks dead the first row among rows 0 to row count inclusive that holds the port.
void markFirstRowOfPort(File &file, int port) {
    const int last = registry::lastRowInclusive(load(file.header.rowCount));
    for (int r = 0; r <= last; ++r) {
        Row &row = file.row[r];
        if (load(row.port) == port) {
            registry::store(row.mode, registry::kModeDead);
            xajms::trace::data(sockettraceJMSfile, kXASocket, "markBrokerPortDead",
                               " Marked port dead for row %d for exec group %.128s and set port %d",
                               r, row.ExGrp, port);
            return;
        }
    }
}

}  // namespace

extern "C" {

// Marks dead the first start-up-recovery row that this process owns. Returns its port, or
// 0 when there is none (rows of other processes are never touched).
int markRecoveryPortDead_jms(void *registryAddress) {
    constexpr char kFunction[] = "markRecoveryPortDead";
    auto *file = static_cast<File *>(registryAddress);
    const int last = file == nullptr ? -1 : registry::lastRowInclusive(load(file->header.rowCount));
    for (int r = 0; r <= last; ++r) {
        Row &row = file->row[r];
        if (load(row.mode) == registry::kModeStartUpRecovery && load(row.pid) == getpid()) {
            registry::store(row.mode, registry::kModeDead);
            const std::int32_t port = load(row.port);
            xajms::trace::exitData(sockettraceJMSfile, kXASocket, kFunction,
                                   " Now marked recovery port %d as mode %d", port,
                                   registry::kModeDead);
            return port;
        }
    }
    traceJMSExitData(sockettraceJMSfile, kXASocket, kFunction, "Recovery Port Not found");
    return 0;
}

// Marks dead the first row that holds the port and has the pool drop the port's sockets,
// whether or not a row held it. Port 0 touches neither the registry nor the pool.
void markBrokerPortDead_jms(int port) {
    constexpr char kFunction[] = "markBrokerPortDead";
    traceJMSEntry(sockettraceJMSfile, kXASocket, kFunction);
    if (port == 0) {
        traceJMSExit(sockettraceJMSfile, kXASocket, kFunction);
        return;
    }
    auto *file = static_cast<File *>(GetSharedMemory_jms());
    if (file == nullptr) {
        traceJMSData(sockettraceJMSfile, kXASocket, kFunction,
                     "<ERROR> shared memory not accessible");
        traceJMSExit(sockettraceJMSfile, kXASocket, kFunction);
        return;
    }
    markFirstRowOfPort(*file, port);
    connectionSocketPool_jms(port, nullptr, xajms::pool::kActionClear);
    traceJMSExit(sockettraceJMSfile, kXASocket, kFunction);
}

}  // extern "C"
