// Counting system calls: a count of every connect this process makes, and strace -c runs of
// a child copy of the benchmark that commits, or round-trips raw, a given number of times.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "stats.h"

namespace xajms::bench {

// Connects made by this process so far, the library's and the benchmark's own.
std::uint64_t connectsSoFar();

// True when strace can be started.
bool straceAvailable();

// Runs this program under "strace -f -c" as a child that makes `ops` operations of `mode`
// against the listener port after a warm-up: "commit" or "raw" round trips, or "recover"
// or "rawrecover" transfers of kRecoveredXids XIDs. Nothing when strace or the child failed.
std::optional<SyscallCounts> countSyscalls(const std::string &mode, int port, int ops);

// The child's side: the warm-up and the operations. Returns its exit status.
int runSyscallChild(const std::string &mode, int port, int ops);

}  // namespace xajms::bench
