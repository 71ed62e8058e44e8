// The calls the benchmark times: a commit and a recover through the library, the same bytes
// over a raw socket for the loopback limit, and a trace call with tracing off.
#pragma once

#include <xajms/xa.h>

#include <cstddef>
#include <string>
#include <vector>

namespace xajms::bench {

inline constexpr int kRmid = 1;
// The formatID of every XID the benchmark sends or has the recover listeners send.
inline constexpr long kFormatId = 0x1234;
// The largest recover reply measured, and the one whose system calls are counted.
inline constexpr int kRecoveredXids = 1000;

// The XID of every commit: 20 bytes of global transaction id, 12 of branch qualifier.
XID commitXid();

// The commit request exactly as the library writes it for that XID and kRmid.
std::vector<unsigned char> commitRequest(const XID &xid);

// The recover request exactly as the library writes it for kRmid.
std::vector<unsigned char> recoverRequest();

// One commit through the switch entry. True when it returned XA_OK.
bool libraryCommit(XID &xid);

// One round trip over a connected socket: the whole request in one send, then the 4-byte
// answer. True when the listener answered XA_OK.
bool rawRoundTrip(int fd, const std::vector<unsigned char> &request);

// The same round trip with a poll for the answer before the recv, as the library's timed
// read does: the least that a read bounded by a deadline costs.
bool polledRoundTrip(int fd, const std::vector<unsigned char> &request);

// The listener arguments that make it answer recover with n distinct XIDs, registered as a
// pending listener so that recover asks it alone, and the byte count of that reply.
std::vector<std::string> recoverListenerArgs(int n);
std::size_t recoverReplySize(int n);

// One recover through the switch entry into xids (n records expected). True when the last
// expected record arrived.
bool libraryRecover(std::vector<XID> &xids, int n);

// The recover request and its whole reply over a connected socket. True when `expected`
// bytes arrived.
bool rawRecover(int fd, const std::vector<unsigned char> &request,
                std::vector<unsigned char> &reply, std::size_t expected);

// A trace call with tracing off, and an empty out-of-line call of the same shape.
void traceOffCall();
void emptyCall();

}  // namespace xajms::bench
