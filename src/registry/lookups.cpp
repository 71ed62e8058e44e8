// The lookups over the registry rows: all broker and pending ports, the first broker port,
// the first start-up-recovery and pending ports, and all pending ports. Each keeps its own
// scan bound over the row count; every scan stops at the last row of the file.
#include "registry/registry.h"

#include <unistd.h>

#include "trace/trace.h"

namespace {

using xajms::registry::File;
using xajms::registry::load;
using xajms::registry::Row;
using xajms::trace::kXASocket;
namespace registry = xajms::registry;

// One member of the family that returns the port of the first row in a wanted mode among
// rows 0 to row count - 1.
struct FirstInMode {
    const char *function;
    const char *absent;
    std::int32_t wanted;
};

constexpr FirstInMode kStartUpRecoveryPort = {"GetStartUpRecoveryPort",
                                              "GetStartUpRecoveryPort No Recovery Port",
                                              registry::kModeStartUpRecovery};
constexpr FirstInMode kPendingSlot = {
    "CheckForPendingSlot", "CheckForPendingSlot - No Pending Port", registry::kModePending};
constexpr FirstInMode kStartUpRecovery = {"CheckForStartUpRecovery",
                                          "CheckForStartUpRecovery  No Recovery Port",
                                          registry::kModeStartUpRecovery};

// Scans rows 0 to row count - 1 of the registry (null tolerated) for the wanted mode; the
// caller has written the entry line. Returns the first matching row's port, else 0.
int firstInMode(const void *registryAddress, const FirstInMode &family) {
    const auto *file = static_cast<const File *>(registryAddress);
    const int rows = file == nullptr ? 0 : registry::rowsExclusive(load(file->header.rowCount));
    for (int r = 0; r < rows; ++r) {
        const Row &row = file->row[r];
        if (load(row.mode) == family.wanted) {
            const std::int32_t port = load(row.port);
            xajms::trace::exitData(sockettraceJMSfile, kXASocket, family.function,
                                   " ExecutionGroup=%.128s port=%d", row.ExGrp, port);
            return port;
        }
    }
    traceJMSExit(sockettraceJMSfile, kXASocket, family.absent);
    return 0;
}

}  // namespace

extern "C" {

// Stores the port of every broker and pending row among rows 0 to row count inclusive into
// ports, in row order. Returns the number stored (0 for a null registry or array).
int GetBrokerPorts_jms(void *registryAddress, int *ports) {
    constexpr char kFunction[] = "GetBrokerPorts_jms";
    traceJMSEntry(sockettraceJMSfile, kXASocket, kFunction);
    const auto *file = static_cast<const File *>(registryAddress);
    if (file == nullptr) {
        traceJMSExit(sockettraceJMSfile, kXASocket, kFunction);
        return 0;
    }
    const std::int32_t rowCount = load(file->header.rowCount);
    xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction, " number of rows = %d", rowCount);
    int stored = 0;
    const int last = registry::lastRowInclusive(rowCount);
    for (int r = 0; r <= last; ++r) {
        const Row &row = file->row[r];
        const std::int32_t port = load(row.port);
        const std::int32_t mode = load(row.mode);
        xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction,
                           " row = %d ExGrp = %.128s port = %d mode = %d", r, row.ExGrp, port,
                           mode);
        if ((mode == registry::kModePending || mode == registry::kModeBroker) && ports != nullptr) {
            ports[stored] = port;
            ++stored;
            xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction, " found broker port %d",
                               port);
        }
    }
    traceJMSExit(sockettraceJMSfile, kXASocket, kFunction);
    return stored;
}

// Returns the port of the first broker row among rows 0 to row count inclusive, else 0.
int CheckForBroker_jms(void *registryAddress) {
    traceJMSEntry(sockettraceJMSfile, kXASocket, "CheckForBroker_jms");
    const auto *file = static_cast<const File *>(registryAddress);
    if (file != nullptr) {
        const std::int32_t rowCount = load(file->header.rowCount);
        xajms::trace::data(sockettraceJMSfile, kXASocket, "CheckForBroker",
                           " Number of socket rows=%d", rowCount);
        const int last = registry::lastRowInclusive(rowCount);
        for (int r = 0; r <= last; ++r) {
            const Row &row = file->row[r];
            const std::int32_t port = load(row.port);
            xajms::trace::data(sockettraceJMSfile, kXASocket, "CheckForBroker_jms",
                               " ExecutionGroup=%.128s port=%d", row.ExGrp, port);
            if (load(row.mode) == registry::kModeBroker) {
                return port;
            }
        }
    }
    traceJMSExit(sockettraceJMSfile, kXASocket, "CheckForBroker_jms No Broker Port");
    return 0;
}

// Returns the port of the first start-up-recovery row among rows 0 to row count - 1, else 0.
int GetStartUpRecoveryPort_jms(void *registryAddress) {
    traceJMSEntry(sockettraceJMSfile, kXASocket, kStartUpRecoveryPort.function);
    return firstInMode(registryAddress, kStartUpRecoveryPort);
}

// Attaches the registry, then returns the port of its first pending row among rows 0 to
// row count - 1, else 0.
int CheckForPendingSlot_jms(void) {
    void *registryAddress = GetSharedMemory_jms();
    traceJMSEntry(sockettraceJMSfile, kXASocket, kPendingSlot.function);
    return firstInMode(registryAddress, kPendingSlot);
}

// Attaches the registry, then returns the port of its first start-up-recovery row among
// rows 0 to row count - 1, else 0.
int CheckForStartUpRecovery_jms(void) {
    traceJMSEntry(sockettraceJMSfile, kXASocket, kStartUpRecovery.function);
    return firstInMode(GetSharedMemory_jms(), kStartUpRecovery);
}

// Stores the port of every pending row among rows 0 to row count inclusive into ports, in
// row order. Returns the number stored (0 for a null registry or array).
int GetPendingPort_jms(void *registryAddress, int *ports) {
    constexpr char kFunction[] = "GetPendingPort_jms";
    const auto *file = static_cast<const File *>(registryAddress);
    int stored = 0;
    if (file != nullptr) {
        const std::int32_t rowCount = load(file->header.rowCount);
        if (xajms::trace::on(sockettraceJMSfile)) {
            xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction,
                               " Number of Shared memory rows= %d  this pid = %d", rowCount,
                               getpid());
        }
        const int last = registry::lastRowInclusive(rowCount);
        for (int r = 0; r <= last; ++r) {
            const Row &row = file->row[r];
            const std::int32_t port = load(row.port);
            const std::int32_t mode = load(row.mode);
            xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction,
                               "Found row = %d ExGrp = %.128s port = %d pid = %d mode = %d", r,
                               row.ExGrp, port, load(row.pid), mode);
            if (mode == registry::kModePending && ports != nullptr) {
                ports[stored] = port;
                ++stored;
                xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction,
                                   " found port number %d ", port);
            }
        }
    }
    xajms::trace::exitData(sockettraceJMSfile, kXASocket, kFunction, " obtained array of %d ports ",
                           stored);
    return stored;
}

}  // extern "C"
