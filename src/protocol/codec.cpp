// The wire format: big-endian integers, the 20-byte request header, XIDs flattened for the
// listener, and the XID records of a recover reply turned back into XID structures.
#include "protocol/protocol.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "trace/trace.h"

namespace {

// The decoding behind getInt_jms and getLong_jms. The loops over a recover reply use these
// directly: called through the exported names they cost a procedure-linkage call per field,
// three per field of getLong_jms, which dominated the decoding of a long reply.
int32_t decodeInt(const unsigned char *buffer) {
    const uint32_t bits = (uint32_t{buffer[0]} << 24) | (uint32_t{buffer[1]} << 16) |
                          (uint32_t{buffer[2]} << 8) | uint32_t{buffer[3]};
    return static_cast<int32_t>(bits);
}

// The lower word is added as a signed number, so a value whose bit 31 is set decodes as its
// true value minus 2^32. Every value read this way (XID format and lengths) is small.
long decodeLong(const unsigned char *buffer) {
    const int64_t upper = decodeInt(buffer);
    const int64_t lower = decodeInt(buffer + 4);
    return static_cast<long>((static_cast<uint64_t>(upper) << 32) + static_cast<uint64_t>(lower));
}

}  // namespace

namespace xajms::protocol {

// Kept out of line: where the compiler sees that the result is at most 128, it expands the
// copy of each record's data in extractXIDs_jms into a "rep movs", whose start-up cost per
// record dominated the decoding of a long recover reply; the C library's memcpy is cheaper.
[[gnu::noinline]] long dataBytes(long gtridLength, long bqualLength) {
    long sum = 0;
    if (__builtin_add_overflow(gtridLength, bqualLength, &sum)) {
        return gtridLength > 0 ? XIDDATASIZE : 0;
    }
    if (sum < 0) {
        return 0;
    }
    return sum > XIDDATASIZE ? XIDDATASIZE : sum;
}

bool recordsFit(const unsigned char *data, long size, int count) {
    long at = 0;
    for (int i = 0; i < count; ++i) {
        if (size - at < kFlatXidHeader) {
            return false;
        }
        const long gtrid = decodeLong(data + at + 8);
        const long bqual = decodeLong(data + at + 16);
        if (gtrid < 0 || bqual < 0 || gtrid > XIDDATASIZE || bqual > XIDDATASIZE - gtrid) {
            return false;
        }
        if (size - at - kFlatXidHeader < gtrid + bqual) {
            return false;
        }
        at += kFlatXidHeader + gtrid + bqual;
    }
    return true;
}

}  // namespace xajms::protocol

namespace {

using xajms::trace::kXASocket;

}  // namespace

extern "C" {

void setInt_jms(unsigned char *buffer, int value) {
    const auto bits = static_cast<uint32_t>(value);
    for (int i = 0; i < 4; ++i) {
        buffer[i] = static_cast<unsigned char>(bits >> (24 - 8 * i));
    }
}

void setLong_jms(unsigned char *buffer, long value) {
    const auto bits = static_cast<uint64_t>(value);
    for (int i = 0; i < 8; ++i) {
        buffer[i] = static_cast<unsigned char>(bits >> (56 - 8 * i));
    }
}

int getInt_jms(const unsigned char *buffer) {
    return decodeInt(buffer);
}

// Bit 31 of the value is taken as a sign: see decodeLong.
long getLong_jms(const unsigned char *buffer) {
    return decodeLong(buffer);
}

// Writes msgSize, msgType, rmid and flags into the first 20 bytes of a cleared buffer.
void buildHeader_jms(unsigned char *buffer, int msgSize, int msgType, int rmid, long flags) {
    traceJMSEntry(sockettraceJMSfile, kXASocket, "buildHeader");
    xajms::trace::data(sockettraceJMSfile, kXASocket, "buildHeader",
                       "msgSize= %d,msgType= %d,msgrmid= %d,longflags==%016lx", msgSize, msgType,
                       rmid, static_cast<unsigned long>(flags));
    setInt_jms(buffer, msgSize);
    setInt_jms(buffer + 4, msgType);
    setInt_jms(buffer + 8, rmid);
    setLong_jms(buffer + 12, flags);
    // The buffer is shown as text up to its first zero byte, within the 20 header bytes.
    xajms::trace::data(sockettraceJMSfile, kXASocket, "buildHeader", "buildHeader buffer = %.20s",
                       reinterpret_cast<const char *>(buffer));
    traceJMSExit(sockettraceJMSfile, kXASocket, "buildHeader");
}

// Writes the XID as the listener reads it: formatID, gtrid_length and bqual_length as 8-byte
// big-endian values, then the data bytes. Returns the flattened size, 152 at most; lengths
// that reach outside the 128-byte data area contribute only the bytes inside it.
int flattenXIDtoJavaTypes_jms(unsigned char *out, const XID *xid) {
    traceJMSEntry(sockettraceJMSfile, kXASocket, "flattenXIDtoJavaTypes_jms");
    std::memset(out, 0, xajms::protocol::kFlatXidClear);
    const long used = xajms::protocol::dataBytes(xid->gtrid_length, xid->bqual_length);
    unsigned char work[XIDDATASIZE] = {};
    std::memcpy(work, xid->data, static_cast<size_t>(used));
    setLong_jms(out, xid->formatID);
    setLong_jms(out + 8, xid->gtrid_length);
    setLong_jms(out + 16, xid->bqual_length);
    std::memcpy(out + xajms::protocol::kFlatXidHeader, work, static_cast<size_t>(used));
    const int size = xajms::protocol::kFlatXidHeader + static_cast<int>(used);
    xajms::trace::data(sockettraceJMSfile, kXASocket, "flattenXIDtoJavaTypes_jms",
                       " gtrid_length: %d, bqual_len: %d, datasize is: %d",
                       static_cast<int>(xid->gtrid_length), static_cast<int>(xid->bqual_length),
                       static_cast<int>(used));
    xajms::trace::data(sockettraceJMSfile, kXASocket, "flattenXIDtoJavaTypes_jms",
                       " xidsize is: %d", size);
    return size;
}

// Returns `count` XID records read from flattened XIDs back to back, in one cleared heap
// block that the caller frees; null for a count below 1 or when memory is short. The
// caller has checked that the records lie within the reply (recordsFit); each record's data
// copy is still kept within its 128-byte area.
XID *extractXIDs_jms(const unsigned char *data, int count) {
    traceJMSEntry(sockettraceJMSfile, kXASocket, "extractXIDs");
    XID *xids = count > 0 ? static_cast<XID *>(std::calloc(static_cast<size_t>(count), sizeof(XID)))
                          : nullptr;
    const unsigned char *at = data;
    for (int i = 0; xids != nullptr && i < count; ++i) {
        XID &xid = xids[i];
        xid.formatID = decodeLong(at);
        xid.gtrid_length = decodeLong(at + 8);
        xid.bqual_length = decodeLong(at + 16);
        const long used = xajms::protocol::dataBytes(xid.gtrid_length, xid.bqual_length);
        std::memcpy(xid.data, at + xajms::protocol::kFlatXidHeader, static_cast<size_t>(used));
        at += xajms::protocol::kFlatXidHeader + used;
    }
    traceJMSExit(sockettraceJMSfile, kXASocket, "extractXIDs");
    return xids;
}

}  // extern "C"
