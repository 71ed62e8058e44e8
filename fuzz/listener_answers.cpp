// Any answers of up to four listeners to a completion request through callEGListeners_jms:
// pooled socket pairs that end after their answer, listed as broker rows on ports that refuse
// connections. No socket may stay open after it but those of failed connects (on purpose).
#include <sys/socket.h>

#include <filesystem>
#include <map>
#include <string>

#include "common.h"
#include "protocol/protocol.h"
#include "registry/registry.h"

namespace fuzz = xajms::fuzz;
using xajms::test::LoopbackPort;

namespace {

constexpr int kMsgTypes[] = {xajms::protocol::kPrepare, xajms::protocol::kCommit,
                             xajms::protocol::kRollback, xajms::protocol::kForget};
LoopbackPort refusing[] = {LoopbackPort(false), LoopbackPort(false), LoopbackPort(false),
                           LoopbackPort(false)};
// The open sockets but the known ones; true for those whose connect failed (IPv4, no peer).
std::map<int, bool> socketsBut(const std::map<int, bool> &known) {
    std::map<int, bool> sockets;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename().string());
        sockaddr_in address{};
        socklen_t length = sizeof address;
        auto *any = reinterpret_cast<sockaddr *>(&address);
        if (known.count(fd) == 0 && getsockname(fd, any, &length) == 0) {
            sockets[fd] = address.sin_family == AF_INET && getpeername(fd, any, &length) != 0;
        }
    }
    return sockets;
}

const std::map<int, bool> atStart = socketsBut({});  // the refusing ports among them

}  // namespace

// Input: listener count and request type in the first byte, then for each listener one
// length byte and that many answer bytes; an XID fills the rest.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::span<const uint8_t> in{data, size};
    const auto shape = fuzz::take<uint8_t>(in);
    std::vector<std::pair<int, int>> rows;
    std::vector<int> peers;
    for (int i = 0; i <= shape % 4; ++i) {
        const auto answer = in.first(std::min<size_t>(fuzz::take<uint8_t>(in), in.size()));
        in = in.subspan(answer.size());
        rows.emplace_back(xajms::registry::kModeBroker, refusing[i].port());
        peers.push_back(xajms::test::poolPeer(rows.back().second, {answer.begin(), answer.end()}));
        shutdown(peers.back(), SHUT_WR);
    }
    xajms::test::writeRegistry(rows);
    const XID xid = fuzz::take<XID>(in);
    callEGListeners_jms(&xid, 1, 0, kMsgTypes[(shape / 4) % 4]);
    fuzz::reset();  // for the next input as well
    for (int peer : peers) {
        close(peer);
    }
    for (const auto &[fd, failedConnect] : socketsBut(atStart)) {
        fuzz::check(failedConnect, "the fan-out left a socket open");
        close(fd);
    }
    return 0;
}
