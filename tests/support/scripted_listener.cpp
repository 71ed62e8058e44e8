// Listener stand-ins and registry rows of the listener-protocol tests.
#include "support/scripted_listener.h"

#include <xajms/xajms.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "registry/registry.h"
#include "support/fakes.h"
#include "support/loopback.h"

namespace xajms::test {

void putBig(Bytes &out, uint64_t value, int width) {
    for (int i = width - 1; i >= 0; --i) {
        out.push_back(static_cast<unsigned char>(value >> (8 * i)));
    }
}

Bytes answer(int code) {
    Bytes b;
    putBig(b, static_cast<uint32_t>(code), 4);
    return b;
}

Bytes recoverReply(int xidcount, int xiddatasize, const Bytes &records) {
    Bytes b;
    for (int field : {0x2006, xidcount, 0, xiddatasize}) {
        putBig(b, static_cast<uint32_t>(field), 4);
    }
    b.insert(b.end(), records.begin(), records.end());
    return b;
}

Bytes flatXid(int64_t formatId, int64_t gtridLength, int64_t bqualLength, const Bytes &data) {
    Bytes b;
    for (int64_t field : {formatId, gtridLength, bqualLength}) {
        putBig(b, static_cast<uint64_t>(field), 8);
    }
    b.insert(b.end(), data.begin(), data.end());
    return b;
}

int poolPeer(int port, const Bytes &reply) {
    occupyDescriptorZero();
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0 ||
        write(ends[1], reply.data(), reply.size()) != static_cast<ssize_t>(reply.size())) {
        return -1;
    }
    ConnectionPool &pool = processConnectionPool_jms;
    int r = 0;
    while (r < pool.numPorts && pool.row[r].port != port) {
        ++r;
    }
    pool.numPorts = std::max(pool.numPorts, r + 1);
    pool.row[r] = PortRow{port, 1, 1, {{ends[0], 0}}};
    return ends[1];
}

Bytes received(int peer) {
    Bytes all;
    unsigned char chunk[512];
    for (;;) {
        const ssize_t got = realRecv(peer, chunk, sizeof chunk, MSG_DONTWAIT);
        if (got <= 0) {
            return all;
        }
        all.insert(all.end(), chunk, chunk + got);
    }
}

void writeRegistry(const std::vector<std::pair<int, int>> &rows) {
    auto file = std::make_unique<registry::File>();
    std::memcpy(file->header.signature, registry::kPath, registry::kSignatureLength);
    file->header.rowCount = static_cast<int32_t>(rows.size());
    for (std::size_t r = 0; r < rows.size(); ++r) {
        file->row[r] = registry::Row{1, 0, rows[r].second, rows[r].first, {}, {}};
        std::snprintf(file->row[r].ExGrp, sizeof file->row[r].ExGrp, "eg%zu", r);
    }
    writeRegistryBytes({reinterpret_cast<const unsigned char *>(file.get()), sizeof *file});
}

void writeRegistryBytes(std::span<const unsigned char> bytes) {
    const int fd = open(registry::kPath, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd >= 0) {
        (void)!pwrite(fd, bytes.data(), bytes.size(), 0);
        (void)!ftruncate(fd, static_cast<off_t>(bytes.size()));
        close(fd);
    }
}

int registryMode(int row) {
    int32_t mode = -1;
    const int fd = open(registry::kPath, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        const auto at = offsetof(registry::File, row) +
                        static_cast<std::size_t>(row) * sizeof(registry::Row) +
                        offsetof(registry::Row, mode);
        (void)!pread(fd, &mode, sizeof mode, static_cast<off_t>(at));
        close(fd);
    }
    return mode;
}

}  // namespace xajms::test
