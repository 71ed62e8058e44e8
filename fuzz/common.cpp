// The helpers of the fuzz targets, and the C library calls a fuzz binary replaces: sleep,
// which must not cost real seconds when the library retries, and getpid, which must name a
// process that registry rows can be written for.
#include "common.h"

#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "registry/registry.h"
#include "support/orlom.h"

namespace xajms::fuzz {
namespace {

std::vector<int> reserved;  // the descriptors behind refusingPorts()

constexpr char kTracePrefix[] = "/var/orlom/fuzz-trace.";
constexpr char kTraceFile[] = "/var/orlom/fuzz-trace.4242.trc";

bool onMainThread() {
    return syscall(SYS_gettid) == syscall(SYS_getpid);
}

void occupyDescriptorZero() {
    if (fcntl(0, F_GETFD) == -1) {
        open("/dev/null", O_RDONLY);
    }
}

void writeAll(int fd, const uint8_t *data, size_t size) {
    while (size > 0) {
        const ssize_t wrote = write(fd, data, size);
        if (wrote <= 0) {
            fail("cannot write a fuzz input");
        }
        data += wrote;
        size -= static_cast<size_t>(wrote);
    }
}

}  // namespace

void enterPrivateOrlom() {
    const std::string why = xajms::test::enterPrivateOrlom();
    if (!why.empty()) {
        std::fprintf(stderr, "fuzz: %s\n", why.c_str());
        std::exit(1);
    }
    occupyDescriptorZero();
    setenv("XAJMS_TRACEFILE", kTracePrefix, 1);
    lockConnectionPool_jms();
    unlockConnectionPool_jms();
    ZJavaInitRecoverJMS();
}

void discardTrace() {
    truncate(kTraceFile, 0);
    iIndent = 0;
}

void forgetRegistry() {
    if (shared_stuff != nullptr) {
        munmap(shared_stuff, registry::kFileSize);
        close(hMapFile_jms);
    }
    shared_stuff = nullptr;
    shared_memory_loc = nullptr;
    hMapFile_jms = 0;
}

void writeRegistryFile(std::span<const uint8_t> bytes) {
    forgetRegistry();
    const int fd = open(registry::kPath, O_CREAT | O_RDWR | O_TRUNC, 0666);
    if (fd < 0) {
        fail("cannot create the registry file");
    }
    writeAll(fd, bytes.data(), bytes.size());
    close(fd);
}

void writeRegistryRows(const std::vector<std::pair<int, int>> &rows) {
    static registry::File file;
    file = registry::File{};
    std::memcpy(file.header.signature, registry::kPath, registry::kSignatureLength);
    file.header.rowCount = static_cast<int32_t>(rows.size());
    for (size_t r = 0; r < rows.size() && r < file.row.size(); ++r) {
        file.row[r].mode = rows[r].first;
        file.row[r].port = rows[r].second;
        file.row[r].pid = kPid;
    }
    const int fd = open(registry::kPath, O_CREAT | O_RDWR, 0666);
    if (fd < 0 || pwrite(fd, &file, sizeof file, 0) != static_cast<ssize_t>(sizeof file)) {
        fail("cannot write the registry file");
    }
    close(fd);
}

int poolPeer(int port, std::span<const uint8_t> answer) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) {
        fail("socketpair failed");
    }
    writeAll(pair[1], answer.data(), answer.size());
    shutdown(pair[1], SHUT_WR);
    ConnectionPool &pool = processConnectionPool_jms;
    PortRow &row = pool.row[pool.numPorts++];
    row.port = port;
    row.rows = 1;
    row.available = 1;
    row.slot[0] = SocketSlot{pair[0], 0};
    return pair[1];
}

void emptyPool() {
    ConnectionPool &pool = processConnectionPool_jms;
    const int ports = std::clamp(pool.numPorts, 0, 500);
    for (int r = 0; r < ports; ++r) {
        const int slots = std::clamp(pool.row[r].rows, 0, 30);
        for (int i = 0; i < slots; ++i) {
            if (pool.row[r].slot[i].sockfd > 0) {
                close(pool.row[r].slot[i].sockfd);
            }
        }
    }
    pool = ConnectionPool{};
    // A clear closes descriptor 0 for an emptied slot; it must not become a socket next.
    occupyDescriptorZero();
}

std::vector<int> refusingPorts(int count) {
    std::vector<int> ports;
    for (int i = 0; i < count; ++i) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
            getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
            fail("cannot reserve a loopback port");
        }
        ports.push_back(ntohs(address.sin_port));  // the socket stays open for the run
        reserved.push_back(fd);
    }
    return ports;
}

int openSockets() {
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        fail("cannot list /proc/self/fd");
    }
    int count = 0;
    for (const dirent *entry = readdir(dir); entry != nullptr; entry = readdir(dir)) {
        char path[300];
        char target[64] = {};
        std::snprintf(path, sizeof path, "/proc/self/fd/%s", entry->d_name);
        if (readlink(path, target, sizeof target - 1) > 0 &&
            std::strncmp(target, "socket:", 7) == 0) {
            count += 1;
        }
    }
    closedir(dir);
    return count;
}

int closeUnconnectedSockets() {
    std::vector<int> unconnected;
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        fail("cannot list /proc/self/fd");
    }
    for (const dirent *entry = readdir(dir); entry != nullptr; entry = readdir(dir)) {
        const int fd = std::atoi(entry->d_name);
        sockaddr_in address{};
        socklen_t length = sizeof address;
        const bool inet = getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0 &&
                          address.sin_family == AF_INET;
        length = sizeof address;
        if (inet && getpeername(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0 &&
            std::find(reserved.begin(), reserved.end(), fd) == reserved.end()) {
            unconnected.push_back(fd);
        }
    }
    closedir(dir);
    for (int fd : unconnected) {
        close(fd);
    }
    return static_cast<int>(unconnected.size());
}

XID xidFrom(std::span<const uint8_t> bytes, std::span<const uint8_t> &rest) {
    XID xid{};
    const size_t used = std::min(bytes.size(), sizeof xid);
    std::memcpy(&xid, bytes.data(), used);
    rest = bytes.subspan(used);
    return xid;
}

void fail(const char *what) {
    std::fprintf(stderr, "fuzz: %s\n", what);
    std::abort();
}

}  // namespace xajms::fuzz

extern "C" {

// A reply may announce any size up to 2 GiB, which the library allocates as announced.
// Above 64 MiB the allocation fails with null, as a host's allocator may, instead of ending
// the run: that takes the library's out-of-memory path, and keeps each input cheap (a freed
// block of 1 GiB costs AddressSanitizer 128 MiB of shadow to poison).
const char *__asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}

// Retries of the library never sleep; libFuzzer's own threads (the memory watch) do.
unsigned int sleep(unsigned int seconds) {
    if (!xajms::fuzz::onMainThread()) {
        const timespec wait{static_cast<time_t>(seconds), 0};
        nanosleep(&wait, nullptr);
    }
    return 0;
}

pid_t getpid(void) noexcept {
    return xajms::fuzz::kPid;
}

}  // extern "C"
