// Arbitrary answers of up to four listeners to a completion request through
// callEGListeners_jms. Each listener is a pooled socket pair that ends after its answer; the
// registry lists one broker row per listener, on a port that refuses connections. Whatever
// they answer, the fan-out returns, and no socket is left open but the pool's and those of
// failed connects (which stay open on purpose).
#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "common.h"
#include "protocol/protocol.h"
#include "registry/registry.h"

namespace fuzz = xajms::fuzz;

namespace {

constexpr int kMsgTypes[] = {xajms::protocol::kPrepare, xajms::protocol::kCommit,
                             xajms::protocol::kRollback, xajms::protocol::kForget};
std::vector<std::unique_ptr<xajms::test::LoopbackPort>> refusing;
std::map<int, bool> atStart;  // the sockets open before the first input

// The open sockets by descriptor, each with whether it is one whose connect failed (IPv4,
// no peer), which the library keeps open on purpose.
std::map<int, bool> openSockets() {
    std::map<int, bool> sockets;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename().string());
        sockaddr_in address{};
        socklen_t length = sizeof address;
        auto *any = reinterpret_cast<sockaddr *>(&address);
        if (getsockname(fd, any, &length) == 0) {
            sockets[fd] = address.sin_family == AF_INET && getpeername(fd, any, &length) != 0;
        }
    }
    return sockets;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::enterPrivateOrlom();
    for (int i = 0; i < 4; ++i) {
        refusing.push_back(std::make_unique<xajms::test::LoopbackPort>(false));
    }
    atStart = openSockets();
    return 0;
}

// Input: listener count and request type in the first byte, then for each listener one
// length byte and that many answer bytes; an XID fills the rest.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) {
        return -1;
    }
    fuzz::discardTrace();
    std::span<const uint8_t> in{data + 1, size - 1};
    std::vector<std::pair<int, int>> rows;
    std::vector<int> peers;
    for (int i = 0; i <= data[0] % 4; ++i) {
        uint8_t length = 0;
        fuzz::take(in, length);
        const auto answer = in.first(std::min<size_t>(length, in.size()));
        in = in.subspan(answer.size());
        rows.emplace_back(xajms::registry::kModeBroker, refusing[i]->port());
        peers.push_back(fuzz::pooledListener(rows.back().second, answer));
    }
    xajms::test::writeRegistry(rows);
    XID xid{};
    fuzz::take(in, xid);
    callEGListeners_jms(&xid, 1, 0, kMsgTypes[(data[0] / 4) % 4]);
    fuzz::emptyPool();
    for (int peer : peers) {
        close(peer);
    }
    for (const auto &[fd, failedConnect] : openSockets()) {
        if (atStart.count(fd) > 0) {
            continue;
        }
        if (!failedConnect) {
            fuzz::fail("the fan-out left a socket open");
        }
        close(fd);
    }
    return 0;
}
