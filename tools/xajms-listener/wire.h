// The listener's side of the wire: the request codes and names, the 20-byte request header,
// the flattened XID, the 4-byte completion answer and the recover reply. Integers on the
// wire are big-endian whatever the host's byte order.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace xajms::listener {

inline constexpr std::size_t kHeaderSize = 20;
// The library writes its requests into a 200-byte buffer; anything longer than this is not
// one of its requests and ends the connection.
inline constexpr std::size_t kMaxRequestSize = 512;
inline constexpr std::size_t kXidFixedSize = 24;
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

// An XID as its owner configures it: formatID and the two parts as raw bytes.
struct Xid {
    std::int64_t formatId = 0;
    std::vector<std::uint8_t> gtrid;
    std::vector<std::uint8_t> bqual;
};

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
void appendFlattenedXid(std::vector<std::uint8_t> &out, const Xid &xid);

// The recover reply: msgType 0x2006, xidcount, an unused int, xiddatasize, then the
// flattened XIDs. The two overrides replace the honest count and size in the header.
std::vector<std::uint8_t> encodeRecoverReply(const std::vector<Xid> &xids,
                                             std::optional<std::int32_t> countOverride,
                                             std::optional<std::int32_t> sizeOverride);

// Lowercase hex of the bytes, written at out; returns the number of characters written,
// which is always 2 * bytes.size() (out must have room for them).
std::size_t toHex(std::span<const std::uint8_t> bytes, char *out);

}  // namespace xajms::listener
