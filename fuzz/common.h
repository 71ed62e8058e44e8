// What the fuzz targets add to the tests' support code: the private /var/orlom entered or
// the run ended, the trace emptied between inputs, pooled listeners that end after their
// answer, and inputs cut into fields.
#pragma once

#include <xajms/xajms.h>

#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>

#include "support/loopback.h"
#include "support/orlom.h"
#include "support/scripted_listener.h"

namespace xajms::fuzz {

inline constexpr char kTracePrefix[] = "/var/orlom/fuzz-trace.";

// Ends the run with a message: an input broke a property the target checks.
[[noreturn]] inline void fail(const char *what) {
    std::fprintf(stderr, "fuzz: %s\n", what);
    std::abort();
}

// Empties the trace file and its depth, so that the trace does not grow over the run.
inline void discardTrace() {
    test::enableSocketTrace(kTracePrefix);
}

// Enters a private /var/orlom with both trace prefixes on, or ends the run: a fuzz target
// must never touch the machine's registry file. Call it before any thread starts.
inline void enterPrivateOrlom() {
    if (const std::string why = test::enterPrivateOrlom(); !why.empty()) {
        fail(why.c_str());
    }
    test::occupyDescriptorZero();
    discardTrace();
    ZJavaInitRecoverJMS();  // copies the prefix for the switch's trace as well
}

// Pools a listener for the port that sends `answer` and then ends; returns its end.
inline int pooledListener(int port, std::span<const uint8_t> answer) {
    const int peer = test::poolPeer(port, test::Bytes(answer.begin(), answer.end()));
    if (peer < 0 || shutdown(peer, SHUT_WR) != 0) {
        fail("cannot pool a listener");
    }
    return peer;
}

// Closes every socket of the pool and empties its table for the next input.
inline void emptyPool() {
    poolClear_jms(-1);
    processConnectionPool_jms = ConnectionPool{};
    test::occupyDescriptorZero();  // the clear closes descriptor 0 for an emptied slot
}

// Copies the first bytes of `in` over `out`, which keeps its value where they run short, and
// drops them from `in`.
template <typename T>
void take(std::span<const uint8_t> &in, T &out) {
    const size_t used = std::min(in.size(), sizeof out);
    std::memcpy(&out, in.data(), used);
    in = in.subspan(used);
}

}  // namespace xajms::fuzz
