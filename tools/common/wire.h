// Both sides of the listener wire as the tools speak it: the request codes and names, the
// 20-byte request header, the flattened XID, the recover request and the recover reply.
// Integers on the wire are big-endian whatever the host's byte order.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/xid_notation.h"

namespace xajms::tools {

inline constexpr std::size_t kHeaderSize = 20;
// The library writes its requests into a 200-byte buffer; anything longer than this is not
// one of its requests and ends the connection.
inline constexpr std::size_t kMaxRequestSize = 512;
inline constexpr std::size_t kXidFixedSize = 24;
// The head of a recover reply: msgType, xidcount, an unused int and xiddatasize.
inline constexpr std::size_t kRecoverHeadSize = 16;
// The longest transaction id and branch qualifier an XID holds.
inline constexpr std::int64_t kMaxXidPart = 64;
inline constexpr std::string_view kCleanupText = "Cleanup Java Process";

enum class RequestType : std::uint8_t { prepare, commit, rollback, forget, recover, close };
inline constexpr std::size_t kRequestTypes = 6;
// The types whose request is answered, and so can be told to misbehave.
inline constexpr std::size_t kAnsweredTypes = 5;

std::string_view requestName(RequestType type);
std::optional<RequestType> requestTypeFromCode(std::int32_t msgType);
std::optional<RequestType> answeredTypeFromName(std::string_view name);

std::int32_t getInt(const std::uint8_t *p);
std::int64_t getLong(const std::uint8_t *p);
void putInt(std::uint8_t *p, std::int32_t value);
void putLong(std::uint8_t *p, std::int64_t value);

struct Header {
    std::int32_t msgSize;
    std::int32_t msgType;
    std::int32_t rmid;
    std::uint64_t flags;
};

Header decodeHeader(const std::uint8_t *p);

// The number of bytes the request that starts with this header occupies on the wire, or 0
// when its msgSize cannot be one of the library's requests. A recover request says msgSize 0
// although it is 20 bytes long; a size below 20 is taken as a bare header.
std::size_t requestLength(const Header &h);

// A flattened XID inside a request payload, pointing into the payload.
struct XidView {
    std::int64_t formatId;
    std::span<const std::uint8_t> gtrid;
    std::span<const std::uint8_t> bqual;
};

enum class XidStatus { absent, valid, malformed };

// Reads the flattened XID that makes up the whole payload of a completion request. An empty
// payload is absent; a payload whose lengths are negative or do not add up to its size
// exactly is malformed.
XidStatus decodeXid(std::span<const std::uint8_t> payload, XidView &out);

// Appends the flattened form of an XID: formatID, gtrid length, bqual length, data.
void appendFlattenedXid(std::vector<std::uint8_t> &out, const XidParts &xid);

// The recover reply: msgType 0x2006, xidcount, an unused int, xiddatasize, then the
// flattened XIDs. The two overrides replace the honest count and size in the header.
std::vector<std::uint8_t> encodeRecoverReply(const std::vector<XidParts> &xids,
                                             std::optional<std::int32_t> countOverride,
                                             std::optional<std::int32_t> sizeOverride);

// The 20 bytes of a recover request as the library writes them: msgSize 0, msgType 0x2006,
// the rmid and the flags.
std::array<std::uint8_t, kHeaderSize> encodeRecoverRequest(std::int32_t rmid, std::uint64_t flags);

// The xidcount and xiddatasize of a recover reply's 16-byte head.
struct RecoverHead {
    std::int32_t count;
    std::int32_t size;
};
RecoverHead decodeRecoverHead(const std::uint8_t *p);

// Takes apart the xiddatasize bytes that follow a recover reply's head into count XIDs.
// Returns them, or nothing with the reason in why when a record's head or data lies beyond
// the bytes or a length is negative or above 64. Bytes after the count records are ignored,
// as the library ignores them.
std::optional<std::vector<XidParts>> decodeRecoverRecords(std::span<const std::uint8_t> data,
                                                          std::int32_t count, std::string &why);

// Lowercase hex of the bytes, written at out; returns the number of characters written,
// which is always 2 * bytes.size() (out must have room for them).
std::size_t toHex(std::span<const std::uint8_t> bytes, char *out);

}  // namespace xajms::tools
