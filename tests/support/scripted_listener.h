// Stand-ins for the execution groups' listeners in the listener-protocol tests: the rows of
// the registry file in the test's private /var/orlom, and a listener as one end of a socket
// pair, pooled for its port with its reply already waiting, whose other end the test holds.
#pragma once

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

namespace xajms::test {

using Bytes = std::vector<unsigned char>;

void putBig(Bytes &out, uint64_t value, int width);  // big-endian, `width` bytes
// The bare 4-byte answer to a completion request.
Bytes answer(int code);
// A recover reply: msgType 0x2006, xidcount, an unused field, xiddatasize, then the records.
Bytes recoverReply(int xidcount, int xiddatasize, const Bytes &records);
// A flattened XID as a listener sends it: formatID, the two lengths, then the data.
Bytes flatXid(int64_t formatId, int64_t gtridLength, int64_t bqualLength, const Bytes &data);

// Pools one end of a new socket pair as the only, idle socket of `port` with `reply` waiting
// in it; returns the other end, the listener's.
int poolPeer(int port, const Bytes &reply);
// What the library has written to the listener's end so far.
Bytes received(int peer);

// Writes the registry file /var/orlom/XA_SWITCH_MMF afresh: signature, one row per
// (mode, port) pair in order, row count = number of rows. Call inside enterPrivateOrlom().
void writeRegistry(const std::vector<std::pair<int, int>> &rows);
// Makes the registry file exactly `bytes`, written in place so that a mapping sees them.
void writeRegistryBytes(std::span<const unsigned char> bytes);
// The mode of a row as the file holds it now.
int registryMode(int row);

}  // namespace xajms::test
