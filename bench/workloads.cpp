// The timed calls: library commit and recover, their raw-socket limits, and the trace call
// with tracing off beside an empty call of the same shape.
#include "workloads.h"

#include <poll.h>
#include <sys/socket.h>

#include <xajms/xajms.h>

#include <array>
#include <cstdio>
#include <cstring>

namespace xajms::bench {

namespace {

constexpr int kGtridLength = 20;
constexpr int kBqualLength = 12;
constexpr int kCommitType = 0x2003;
constexpr int kRecoverType = 0x2006;
constexpr int kHeaderSize = 20;
constexpr std::size_t kRecoverHead = 16;
constexpr std::size_t kFlatHeader = 24;
constexpr int kAnswerWaitMs = 60000;

bool sendAll(int fd, const unsigned char *bytes, std::size_t length) {
    return send(fd, bytes, length, MSG_NOSIGNAL) == static_cast<ssize_t>(length);
}

// Receives until `length` bytes are in, as a raw client that knows the size would.
bool receiveAll(int fd, unsigned char *bytes, std::size_t length) {
    std::size_t got = 0;
    while (got < length) {
        const ssize_t n = recv(fd, bytes + got, length - got, 0);
        if (n <= 0) {
            return false;
        }
        got += static_cast<std::size_t>(n);
    }
    return true;
}

// Two hex digits for each byte.
std::string hex(const unsigned char *bytes, std::size_t length) {
    std::string out;
    char pair[3];
    for (std::size_t i = 0; i < length; ++i) {
        std::snprintf(pair, sizeof pair, "%02x", bytes[i]);
        out += pair;
    }
    return out;
}

// The records of the recover listeners: numbered global transaction ids.
XID recoverXid(int i) {
    XID xid = commitXid();
    std::memcpy(xid.data, &i, sizeof i);
    return xid;
}

using TraceCall = void (*)(const char *, const char *, const char *, const char *);

__attribute__((noinline)) void nothing(const char *, const char *, const char *, const char *) {
    asm volatile("");
}

// Both calls go through a pointer read anew each time, so that neither is inlined or hoisted
// and they differ only in the body called.
TraceCall volatile traceCall = traceJMSData;
TraceCall volatile nothingCall = nothing;
char offPrefix[512] = "NoTrace";

}  // namespace

void traceOffCall() {
    traceCall(offPrefix, "XASocket", "bench", "a trace text");
}

void emptyCall() {
    nothingCall(offPrefix, "XASocket", "bench", "a trace text");
}

XID commitXid() {
    XID xid{};
    xid.formatID = kFormatId;
    xid.gtrid_length = kGtridLength;
    xid.bqual_length = kBqualLength;
    for (int i = 0; i < kGtridLength + kBqualLength; ++i) {
        xid.data[i] = static_cast<char>('a' + i % 26);
    }
    return xid;
}

std::vector<unsigned char> commitRequest(const XID &xid) {
    std::array<unsigned char, 200> buffer{};
    const int flat = flattenXIDtoJavaTypes_jms(buffer.data() + kHeaderSize, &xid);
    buildHeader_jms(buffer.data(), kHeaderSize + flat, kCommitType, kRmid, 0);
    return {buffer.begin(), buffer.begin() + kHeaderSize + flat};
}

std::vector<unsigned char> recoverRequest() {
    std::vector<unsigned char> request(kHeaderSize);
    buildHeader_jms(request.data(), 0, kRecoverType, kRmid, 0);
    return request;
}

bool libraryCommit(XID &xid) {
    return xa_commit_entry_jms(&xid, kRmid, 0) == XA_OK;
}

bool rawRoundTrip(int fd, const std::vector<unsigned char> &request) {
    std::array<unsigned char, 4> answer{};
    if (!sendAll(fd, request.data(), request.size()) ||
        !receiveAll(fd, answer.data(), answer.size())) {
        return false;
    }
    return getInt_jms(answer.data()) == XA_OK;
}

bool polledRoundTrip(int fd, const std::vector<unsigned char> &request) {
    std::array<unsigned char, 4> answer{};
    if (!sendAll(fd, request.data(), request.size())) {
        return false;
    }
    pollfd ready{fd, POLLIN | POLLPRI, 0};
    if (poll(&ready, 1, kAnswerWaitMs) != 1 || !receiveAll(fd, answer.data(), answer.size())) {
        return false;
    }
    return getInt_jms(answer.data()) == XA_OK;
}

std::vector<std::string> recoverListenerArgs(int n) {
    std::vector<std::string> args{"--quiet", "--mode", "pending", "--name", "bench-recover"};
    for (int i = 0; i < n; ++i) {
        const XID xid = recoverXid(i);
        const auto *data = reinterpret_cast<const unsigned char *>(xid.data);
        args.push_back("--xid");
        args.push_back(std::to_string(kFormatId) + ":0x" + hex(data, kGtridLength) + ":0x" +
                       hex(data + kGtridLength, kBqualLength));
    }
    return args;
}

std::size_t recoverReplySize(int n) {
    return kRecoverHead + static_cast<std::size_t>(n) * (kFlatHeader + kGtridLength + kBqualLength);
}

bool libraryRecover(std::vector<XID> &xids, int n) {
    XID &last = xids[static_cast<std::size_t>(n - 1)];
    last.formatID = 0;
    xa_recover_entry_jms(xids.data(), static_cast<long>(xids.size()), kRmid, 0);
    const XID expected = recoverXid(n - 1);
    return last.formatID == kFormatId && last.gtrid_length == kGtridLength &&
           std::memcmp(last.data, expected.data, kGtridLength + kBqualLength) == 0;
}

bool rawRecover(int fd, const std::vector<unsigned char> &request,
                std::vector<unsigned char> &reply, std::size_t expected) {
    return sendAll(fd, request.data(), request.size()) &&
           receiveAll(fd, reply.data(), std::min(expected, reply.size()));
}

}  // namespace xajms::bench
