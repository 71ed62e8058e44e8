// The gid under which a branch is prepared in PostgreSQL. It carries everything needed to
// give the XID back after a crash: formatID, gtrid and bqual as binary, the rmid, and a tag
// of the execution group, and fits PostgreSQL's 199 bytes for the largest XID (28 + 171).
#include "eg.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace xajms::eg {

namespace {

constexpr std::string_view kPrefix = "xj";
constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr std::size_t kHeadLength = 2 + 8 + 8 + 8 + 2;
constexpr long kMaxPart = 64;

void appendBase64(std::string &out, const unsigned char *data, std::size_t length) {
    std::uint32_t bits = 0;
    int held = 0;
    for (std::size_t i = 0; i < length; ++i) {
        bits = (bits << 8) | data[i];
        held += 8;
        while (held >= 6) {
            held -= 6;
            out.push_back(kAlphabet[(bits >> held) & 0x3f]);
        }
    }
    if (held > 0) {
        out.push_back(kAlphabet[(bits << (6 - held)) & 0x3f]);
    }
}

// Decodes unpadded base64url into out. Returns the number of bytes, or -1 when a character
// is outside the alphabet, the length cannot be base64's, or the data exceed the room.
long decodeBase64(std::string_view text, unsigned char *out, std::size_t room) {
    std::uint32_t bits = 0;
    int held = 0;
    std::size_t n = 0;
    if (text.size() % 4 == 1) {
        return -1;
    }
    for (const char c : text) {
        const std::size_t v = kAlphabet.find(c);
        if (v == std::string_view::npos) {
            return -1;
        }
        bits = (bits << 6) | static_cast<std::uint32_t>(v);
        held += 6;
        if (held >= 8) {
            held -= 8;
            if (n == room) {
                return -1;
            }
            out[n++] = static_cast<unsigned char>(bits >> held);
        }
    }
    // The bits left over must be the zero padding that appendBase64 writes.
    return (bits & ((1u << held) - 1)) == 0 ? static_cast<long>(n) : -1;
}

bool readHex(std::string_view text, std::uint32_t &value) {
    value = 0;
    for (const char c : text) {
        const std::size_t v = std::string_view("0123456789abcdef").find(c);
        if (v == std::string_view::npos) {
            return false;
        }
        value = (value << 4) | static_cast<std::uint32_t>(v);
    }
    return true;
}

}  // namespace

std::uint32_t groupTag(std::string_view eg) {
    std::uint32_t hash = 2166136261u;  // FNV-1a
    for (const char c : eg) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619u;
    }
    return hash;
}

std::string gidPrefix(std::uint32_t group, int rmid) {
    char text[2 + 8 + 8 + 1];
    std::snprintf(text, sizeof text, "%.2s%08x%08x", kPrefix.data(), group,
                  static_cast<std::uint32_t>(rmid));
    return text;
}

std::string encodeGid(const XID &xid, std::uint32_t group, int rmid) {
    if (xid.formatID == -1 || xid.formatID < INT32_MIN || xid.formatID > INT32_MAX ||
        xid.gtrid_length < 1 || xid.gtrid_length > kMaxPart || xid.bqual_length < 0 ||
        xid.bqual_length > kMaxPart) {
        return {};
    }
    std::string gid = gidPrefix(group, rmid);
    char tail[8 + 2 + 1];
    std::snprintf(tail, sizeof tail, "%08x%02x", static_cast<std::uint32_t>(xid.formatID),
                  static_cast<unsigned>(xid.gtrid_length));
    gid += tail;
    appendBase64(gid, reinterpret_cast<const unsigned char *>(xid.data),
                 static_cast<std::size_t>(xid.gtrid_length + xid.bqual_length));
    return gid;
}

std::optional<GidParts> decodeGid(std::string_view gid) {
    std::uint32_t group = 0;
    std::uint32_t rmid = 0;
    std::uint32_t format = 0;
    std::uint32_t gtrid = 0;
    if (gid.size() < kHeadLength || gid.size() > kMaxGidLength || !gid.starts_with(kPrefix) ||
        !readHex(gid.substr(2, 8), group) || !readHex(gid.substr(10, 8), rmid) ||
        !readHex(gid.substr(18, 8), format) || !readHex(gid.substr(26, 2), gtrid)) {
        return std::nullopt;
    }
    GidParts parts{};
    const long n =
        decodeBase64(gid.substr(kHeadLength), reinterpret_cast<unsigned char *>(parts.xid.data),
                     sizeof parts.xid.data);
    if (n < 0 || gtrid < 1 || gtrid > kMaxPart || static_cast<long>(gtrid) > n ||
        n - static_cast<long>(gtrid) > kMaxPart) {
        return std::nullopt;
    }
    parts.xid.formatID = static_cast<std::int32_t>(format);
    parts.xid.gtrid_length = static_cast<long>(gtrid);
    parts.xid.bqual_length = n - static_cast<long>(gtrid);
    parts.group = group;
    parts.rmid = static_cast<int>(rmid);
    // Only the one spelling that encodeGid writes is a gid of ours.
    if (encodeGid(parts.xid, group, parts.rmid) != gid) {
        return std::nullopt;
    }
    return parts;
}

}  // namespace xajms::eg
