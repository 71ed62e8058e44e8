// What the fuzz targets add to the tests' support code.
#pragma once

#include <xajms/xajms.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>

#include "support/loopback.h"
#include "support/orlom.h"
#include "support/scripted_listener.h"
#include "trace/trace.h"

namespace xajms::fuzz {

inline constexpr char kTracePrefix[] = "/var/orlom/fuzz-trace.";

// Ends the run with a message unless a property the target checks holds.
inline void check(bool holds, const char *what) {
    if (!holds) {
        std::fprintf(stderr, "fuzz: %s\n", what);
        std::abort();
    }
}

// Closes every socket of the pool and empties its table, then empties the trace file and its
// depth with both trace prefixes on, so that nothing grows over the run.
inline void reset() {
    poolClear_jms(-1);
    processConnectionPool_jms = ConnectionPool{};
    test::occupyDescriptorZero();  // the clear closes descriptor 0 for an emptied slot
    test::enableSocketTrace(kTracePrefix);
    trace::copyFromEnvironment(jmstracefile);
}

// The first bytes of `in` as a T, zero where they run short; they are dropped from `in`.
template <typename T>
T take(std::span<const uint8_t> &in) {
    T out{};
    const size_t used = std::min(in.size(), sizeof out);
    std::memcpy(&out, in.data(), used);
    in = in.subspan(used);
    return out;
}

}  // namespace xajms::fuzz
