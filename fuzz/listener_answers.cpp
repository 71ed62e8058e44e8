// Arbitrary answers of up to four listeners to a completion request through
// callEGListeners_jms. Each listener is a socket pair in the pool, pre-loaded with its answer
// and then closed for writing; the registry lists one broker row per listener, on a port
// that refuses connections. Whatever they answer, the fan-out returns, and no socket is left
// open but the pool's and those of failed connects (which stay open on purpose).
#include <unistd.h>

#include <algorithm>

#include "common.h"
#include "protocol/protocol.h"

namespace fuzz = xajms::fuzz;

namespace {

constexpr int kMsgTypes[] = {xajms::protocol::kPrepare, xajms::protocol::kCommit,
                             xajms::protocol::kRollback, xajms::protocol::kForget};
std::vector<int> ports;
int sockets = 0;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::enterPrivateOrlom();
    ports = fuzz::refusingPorts(4);
    sockets = fuzz::openSockets();
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
    const int listeners = 1 + data[0] % 4;
    std::vector<std::pair<int, int>> rows;
    std::vector<int> peers;
    for (int i = 0; i < listeners; ++i) {
        const size_t length = in.empty() ? 0 : std::min<size_t>(in[0], in.size() - 1);
        peers.push_back(fuzz::poolPeer(ports[i], in.subspan(in.empty() ? 0 : 1, length)));
        in = in.subspan(std::min(in.size(), length + 1));
        rows.emplace_back(2, ports[i]);  // broker
    }
    fuzz::writeRegistryRows(rows);
    std::span<const uint8_t> rest;
    const XID xid = fuzz::xidFrom(in, rest);
    callEGListeners_jms(&xid, 1, 0, kMsgTypes[(data[0] / 4) % 4]);
    fuzz::emptyPool();
    for (int peer : peers) {
        close(peer);
    }
    fuzz::closeUnconnectedSockets();
    if (fuzz::openSockets() != sockets) {
        fuzz::fail("the fan-out left a socket open");
    }
    return 0;
}
