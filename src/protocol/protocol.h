// Internal interface of the listener protocol: request codes, sizes of the wire format, and
// the checks that keep a listener's reply inside the buffers that hold it.
#pragma once

#include <xajms/xajms.h>

#include <cstddef>

namespace xajms::protocol {

// Request codes (msgType) sent to a listener.
inline constexpr int kPrepare = 0x2002;
inline constexpr int kCommit = 0x2003;
inline constexpr int kRollback = 0x2004;
inline constexpr int kClose = 0x2005;
inline constexpr int kRecover = 0x2006;
inline constexpr int kForget = 0x2008;

inline constexpr int kHeaderSize = 20;       // msgSize, msgType, rmid, flags
inline constexpr int kFlatXidHeader = 24;    // formatID, gtrid_length, bqual_length
inline constexpr int kFlatXidClear = 160;    // bytes a flattening clears in its output
inline constexpr int kRequestBuffer = 200;   // the senders' request buffer
inline constexpr int kRecoverBuffer = 1024;  // the caller's buffer of a recover reply
inline constexpr int kNoAnswer = -99;        // no answer in time: never leaves the senders
inline constexpr char kCloseText[] = "Cleanup Java Process";

inline constexpr int kPortList = 500;         // one port entry per row of the registry file
inline constexpr int kAnswerSize = 4;         // a completion reply: the bare XA code
inline constexpr int kAnswerTimeout = 60;     // seconds a listener has for a completion reply
inline constexpr int kRecoverTimeout = 20;    // seconds for each read of a recover reply
inline constexpr unsigned kRetrySeconds = 1;  // sleep between two registry look-ups
inline constexpr int kFanOutAttempts = 3;     // registry look-ups of the fan-out
inline constexpr int kBrokerRecoverAttempts = 15;
inline constexpr int kRecoveryPortAttempts = 5;  // start-up recovery and close
inline constexpr int kStartUpSocketAttempts = 2;

// The largest close text that fits behind the header in the request buffer.
inline constexpr int kMaxCloseText = kRequestBuffer - kHeaderSize;

// Sends the first `length` bytes of the request in one call. A listener that has closed
// the connection makes this fail with EPIPE instead of raising SIGPIPE in the host.
long sendRequest(int sockfd, const unsigned char *request, int length);

// How many data bytes of an XID are used for its lengths: gtrid_length + bqual_length as
// long as that lies within the 128-byte data area, else cut to 0 or 128.
long dataBytes(long gtridLength, long bqualLength);

// True when `size` bytes at `data` hold `count` flattened XIDs back to back, each with
// non-negative lengths whose sum fits the 128-byte data area of an XID record.
bool recordsFit(const unsigned char *data, long size, int count);

// Hardened recovery: asks every broker and pending listener, else the start-up recovery
// listener, for its in-doubt XIDs, and stores into xids the distinct XIDs of their lists in
// the order of the XIDs (format identifier, lengths, data), from position skip on, at most
// count of them. Returns the number
// stored (0 without listeners), or XAER_RMFAIL when the registry cannot be attached or a
// listener could not be asked or its reply not read.
int collectXids(XID *xids, long count, long skip, int rmid, long flags);

}  // namespace xajms::protocol
