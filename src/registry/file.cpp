// Attaching a process to the registry file (open, map, grow by one byte, format when the
// signature is missing) and the clearing of row 0, with the three process-wide variables
// that record the attach.
#include "registry/registry.h"

#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "trace/trace.h"

extern "C" {
int hMapFile_jms = 0;
void *shared_memory_loc = nullptr;
void *shared_stuff = nullptr;
}

namespace {

using xajms::registry::File;
using xajms::trace::kVarnelink;
namespace registry = xajms::registry;

constexpr char kAttach[] = "GetSharedMemory_jms";
constexpr char kClear[] = "ClearingSharedMemory_jms";
constexpr char kAttached[] =
    "Attached shared memory pre-allocated by different process at %lx, Number rows %d";

// True when the descriptor is a regular file of at least the registry's size, so that
// every byte of the mapping is backed by the file. A shorter file would turn the first
// touch of the mapping into SIGBUS.
bool fullyBacked(int fd) {
    struct stat info;
    if (fstat(fd, &info) != 0) {
        return false;
    }
    return S_ISREG(info.st_mode) && info.st_size >= registry::kFileSize;
}

// Gives back what an attach that cannot be backed took, and leaves the two variables as a
// failed open and a failed mapping leave them, so that nobody uses the released mapping.
void refuse(void *mapping) {
    munmap(mapping, registry::kFileSize);
    close(hMapFile_jms);
    hMapFile_jms = -1;
    shared_memory_loc = MAP_FAILED;
}

// Checks the signature of a fully backed mapping; formats the file when it is missing.
void adoptOrFormat(void *mapping) {
    auto *file = static_cast<File *>(mapping);
    if (std::memcmp(file->header.signature, registry::kPath, registry::kSignatureLength) == 0) {
        xajms::trace::data(jmstracefile, kVarnelink, kAttach, kAttached,
                           reinterpret_cast<unsigned long>(mapping),
                           registry::load(file->header.rowCount));
        return;
    }
    xajms::trace::exitData(jmstracefile, kVarnelink, kAttach,
                           " First allocation of shared memory attached at %lx",
                           reinterpret_cast<unsigned long>(mapping));
    std::memset(mapping, 0, registry::kFileSize);
    std::memcpy(file->header.signature, registry::kPath, registry::kSignatureLength);
}

// Opens, maps and grows the file, then adopts or formats it. Returns the mapping, or null
// when the file cannot be opened, mapped, positioned or fully backed.
void *attach() {
    hMapFile_jms = open(registry::kPath, O_RDWR, registry::kOpenMode);
    if (hMapFile_jms == -1) {
        traceJMSData(jmstracefile, kVarnelink, kAttach, "perform UNIX open() failed");
        return nullptr;
    }
    traceJMSData(jmstracefile, kVarnelink, kAttach, "perform UNIX mmap()");
    shared_memory_loc =
        mmap(nullptr, registry::kFileSize, PROT_READ | PROT_WRITE, MAP_SHARED, hMapFile_jms, 0);
    if (shared_memory_loc == MAP_FAILED) {
        traceJMSData(jmstracefile, kVarnelink, kAttach, "perform UNIX mmap() failed");
        return nullptr;
    }
    void *mapping = shared_memory_loc;
    traceJMSData(jmstracefile, kVarnelink, kAttach, "Map shared structure to memory");
    if (lseek(hMapFile_jms, registry::kLastByte, SEEK_SET) == -1) {
        traceJMSData(jmstracefile, kVarnelink, kAttach, "perform UNIX lseek()  failed");
        return nullptr;
    }
    const char zero = 0;
    if (write(hMapFile_jms, &zero, 1) == 1) {
        traceJMSData(jmstracefile, kVarnelink, kAttach, "Initialized shared memory successfully");
    }
    if (!fullyBacked(hMapFile_jms)) {
        refuse(mapping);
        return nullptr;
    }
    adoptOrFormat(mapping);
    return mapping;
}

}  // namespace

extern "C" {

// Returns the attached registry, attaching on the first call that can; null while the file
// cannot be attached. After the first success every call returns the same address.
void *GetSharedMemory_jms(void) {
    traceJMSEntry(jmstracefile, kVarnelink, kAttach);
    xajms::trace::data(jmstracefile, kVarnelink, kAttach, " shared_stuff = %ld",
                       reinterpret_cast<long>(shared_stuff));
    if (shared_stuff != nullptr) {
        return shared_stuff;
    }
    void *mapping = attach();
    if (mapping == nullptr) {
        return nullptr;
    }
    shared_stuff = mapping;
    traceJMSExit(jmstracefile, kVarnelink, kAttach);
    return mapping;
}

// Empties row 0 (when it is in use) and sets the row count to 0; rows 1 and above keep
// their contents. Returns 0.
int ClearSharedMemory_jms(void) {
    traceJMSEntry(jmstracefile, kVarnelink, kClear);
    auto *file = static_cast<File *>(GetSharedMemory_jms());
    if (file != nullptr && registry::load(file->header.rowCount) >= 1) {
        registry::Row &row = file->row[0];
        if (registry::load(row.mode) > registry::kModeEmpty) {
            xajms::trace::exitData(jmstracefile, kVarnelink, kClear,
                                   " Clearing Shared memory for port %d", registry::load(row.port));
            registry::store(row.pid, 0);
            registry::store(row.reserved, 0);
            registry::store(row.port, 0);
            registry::store(row.mode, registry::kModeEmpty);
            std::memcpy(row.ExGrp, " ", sizeof " ");
        }
        registry::store(file->header.rowCount, 0);
    }
    traceJMSExit(jmstracefile, kVarnelink, kClear);
    return 0;
}

}  // extern "C"

namespace xajms::registry {

void detach() {
    // shared_memory_loc stays null until an open succeeded; a failed mapping leaves
    // MAP_FAILED there with the descriptor still open, a refused one leaves -1 as descriptor.
    if (shared_memory_loc == nullptr) {
        return;
    }
    if (shared_memory_loc != MAP_FAILED) {
        munmap(shared_memory_loc, kFileSize);
    }
    if (hMapFile_jms >= 0) {
        close(hMapFile_jms);
    }
    hMapFile_jms = 0;
    shared_memory_loc = nullptr;
    shared_stuff = nullptr;
}

}  // namespace xajms::registry
