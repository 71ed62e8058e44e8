// What the fuzz targets share: a private /var/orlom with the trace file inside it, the
// registry file written afresh, a pool whose sockets are socket pairs pre-loaded with a
// listener's answer, and XIDs cut from arbitrary bytes.
#pragma once

#include <xajms/xajms.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

namespace xajms::fuzz {

// The process id that getpid() reports in a fuzz binary, so that registry rows can name
// this process.
inline constexpr int kPid = 4242;

// Moves the process into a private mount namespace with an empty tmpfs on /var/orlom and
// switches both trace prefixes on into a file inside it. Ends the run when that is not
// possible: a fuzz target must never touch the machine's registry file. Call it from
// LLVMFuzzerInitialize, before any thread starts.
void enterPrivateOrlom();

// Empties the trace file, so that it does not grow over the run.
void discardTrace();

// Forgets the mapping the library holds (unmapped, descriptor closed, the three globals as
// at load), so that the next look-up attaches the file afresh.
void forgetRegistry();

// Writes the registry file with exactly these bytes, after forgetting the mapping.
void writeRegistryFile(std::span<const uint8_t> bytes);

// Writes a formatted registry file of full size with one row per (mode, port) pair and the
// row count set to their number. Written in place, so that a mapping sees it at once.
void writeRegistryRows(const std::vector<std::pair<int, int>> &rows);

// Puts a socket pair into the pool as the one idle socket of the port and pre-loads the
// other end with the answer, followed by end of file. Returns the other end.
int poolPeer(int port, std::span<const uint8_t> answer);

// Closes every descriptor the pool still holds and empties its table.
void emptyPool();

// Ports on 127.0.0.1 that are bound but not listening: every connect to them is refused.
std::vector<int> refusingPorts(int count);

// The number of open sockets of the process.
int openSockets();

// Closes the TCP sockets that failed to connect, which the library leaves open on purpose,
// except those of refusingPorts(); returns how many it closed.
int closeUnconnectedSockets();

// The first sizeof(XID) bytes as an XID, zero-padded when fewer; `rest` gets what follows.
XID xidFrom(std::span<const uint8_t> bytes, std::span<const uint8_t> &rest);

// Ends the run with a message: an input broke a property the target checks.
[[noreturn]] void fail(const char *what);

}  // namespace xajms::fuzz
