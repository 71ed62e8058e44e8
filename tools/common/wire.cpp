// Encoding and decoding of the listener protocol's bytes: request codes and names, the
// request header, flattened XIDs, the recover request and the recover reply.
#include "common/wire.h"

namespace xajms::tools {

namespace {

struct RequestCode {
    RequestType type;
    std::int32_t code;
    std::string_view name;
};

constexpr std::array<RequestCode, kRequestTypes> kCodes = {{
    {RequestType::prepare, 0x2002, "prepare"},
    {RequestType::commit, 0x2003, "commit"},
    {RequestType::rollback, 0x2004, "rollback"},
    {RequestType::forget, 0x2008, "forget"},
    {RequestType::recover, 0x2006, "recover"},
    {RequestType::close, 0x2005, "close"},
}};

constexpr std::int32_t kRecoverCode = 0x2006;

}  // namespace

std::string_view requestName(RequestType type) {
    return kCodes[static_cast<std::size_t>(type)].name;
}

std::optional<RequestType> requestTypeFromCode(std::int32_t msgType) {
    for (const auto &c : kCodes) {
        if (c.code == msgType) {
            return c.type;
        }
    }
    return std::nullopt;
}

std::optional<RequestType> answeredTypeFromName(std::string_view name) {
    for (std::size_t i = 0; i < kAnsweredTypes; ++i) {
        if (kCodes[i].name == name) {
            return kCodes[i].type;
        }
    }
    return std::nullopt;
}

std::int32_t getInt(const std::uint8_t *p) {
    const std::uint32_t v = (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) |
                            (std::uint32_t{p[2]} << 8) | std::uint32_t{p[3]};
    return static_cast<std::int32_t>(v);
}

std::int64_t getLong(const std::uint8_t *p) {
    const std::uint64_t hi = static_cast<std::uint32_t>(getInt(p));
    const std::uint64_t lo = static_cast<std::uint32_t>(getInt(p + 4));
    return static_cast<std::int64_t>((hi << 32) | lo);
}

void putInt(std::uint8_t *p, std::int32_t value) {
    const auto v = static_cast<std::uint32_t>(value);
    p[0] = static_cast<std::uint8_t>(v >> 24);
    p[1] = static_cast<std::uint8_t>(v >> 16);
    p[2] = static_cast<std::uint8_t>(v >> 8);
    p[3] = static_cast<std::uint8_t>(v);
}

void putLong(std::uint8_t *p, std::int64_t value) {
    const auto v = static_cast<std::uint64_t>(value);
    putInt(p, static_cast<std::int32_t>(static_cast<std::uint32_t>(v >> 32)));
    putInt(p + 4, static_cast<std::int32_t>(static_cast<std::uint32_t>(v)));
}

Header decodeHeader(const std::uint8_t *p) {
    return Header{getInt(p), getInt(p + 4), getInt(p + 8),
                  static_cast<std::uint64_t>(getLong(p + 12))};
}

std::size_t requestLength(const Header &h) {
    if (h.msgType == kRecoverCode || h.msgSize < static_cast<std::int32_t>(kHeaderSize)) {
        return kHeaderSize;
    }
    if (static_cast<std::size_t>(h.msgSize) > kMaxRequestSize) {
        return 0;
    }
    return static_cast<std::size_t>(h.msgSize);
}

XidStatus decodeXid(std::span<const std::uint8_t> payload, XidView &out) {
    if (payload.empty()) {
        return XidStatus::absent;
    }
    if (payload.size() < kXidFixedSize) {
        return XidStatus::malformed;
    }
    const std::int64_t gtridLength = getLong(payload.data() + 8);
    const std::int64_t bqualLength = getLong(payload.data() + 16);
    const std::size_t room = payload.size() - kXidFixedSize;
    if (gtridLength < 0 || bqualLength < 0 || static_cast<std::uint64_t>(gtridLength) > room ||
        static_cast<std::uint64_t>(bqualLength) != room - static_cast<std::size_t>(gtridLength)) {
        return XidStatus::malformed;
    }
    const auto data = payload.subspan(kXidFixedSize);
    out.formatId = getLong(payload.data());
    out.gtrid = data.first(static_cast<std::size_t>(gtridLength));
    out.bqual = data.subspan(static_cast<std::size_t>(gtridLength));
    return XidStatus::valid;
}

void appendFlattenedXid(std::vector<std::uint8_t> &out, const XidParts &xid) {
    const std::size_t at = out.size();
    out.resize(at + kXidFixedSize);
    putLong(out.data() + at, xid.formatID);
    putLong(out.data() + at + 8, static_cast<std::int64_t>(xid.gtrid.size()));
    putLong(out.data() + at + 16, static_cast<std::int64_t>(xid.bqual.size()));
    out.insert(out.end(), xid.gtrid.begin(), xid.gtrid.end());
    out.insert(out.end(), xid.bqual.begin(), xid.bqual.end());
}

std::vector<std::uint8_t> encodeRecoverReply(const std::vector<XidParts> &xids,
                                             std::optional<std::int32_t> countOverride,
                                             std::optional<std::int32_t> sizeOverride) {
    std::vector<std::uint8_t> reply(kRecoverHeadSize);
    for (const auto &xid : xids) {
        appendFlattenedXid(reply, xid);
    }
    const auto count = static_cast<std::int32_t>(xids.size());
    const auto size = static_cast<std::int32_t>(reply.size() - kRecoverHeadSize);
    putInt(reply.data(), kRecoverCode);
    putInt(reply.data() + 4, countOverride.value_or(count));
    putInt(reply.data() + 8, 0);
    putInt(reply.data() + 12, sizeOverride.value_or(size));
    return reply;
}

std::array<std::uint8_t, kHeaderSize> encodeRecoverRequest(std::int32_t rmid, std::uint64_t flags) {
    std::array<std::uint8_t, kHeaderSize> request{};
    putInt(request.data() + 4, kRecoverCode);
    putInt(request.data() + 8, rmid);
    putLong(request.data() + 12, static_cast<std::int64_t>(flags));
    return request;
}

RecoverHead decodeRecoverHead(const std::uint8_t *p) {
    return RecoverHead{getInt(p + 4), getInt(p + 12)};
}

std::optional<std::vector<XidParts>> decodeRecoverRecords(std::span<const std::uint8_t> data,
                                                          std::int32_t count, std::string &why) {
    std::vector<XidParts> xids;
    for (std::int32_t i = 0; i < count; ++i) {
        const std::string record =
            "record " + std::to_string(i + 1) + " of " + std::to_string(count);
        if (data.size() < kXidFixedSize) {
            why = record + " lies beyond the xiddatasize";
            return std::nullopt;
        }
        const std::int64_t gtridLength = getLong(data.data() + 8);
        const std::int64_t bqualLength = getLong(data.data() + 16);
        if (gtridLength < 0 || bqualLength < 0 || gtridLength > kMaxXidPart ||
            bqualLength > kMaxXidPart) {
            why = record + " has lengths " + std::to_string(gtridLength) + " and " +
                  std::to_string(bqualLength) + ", not 0 to 64";
            return std::nullopt;
        }
        const auto length = static_cast<std::size_t>(gtridLength + bqualLength);
        if (data.size() - kXidFixedSize < length) {
            why = record + " lies beyond the xiddatasize";
            return std::nullopt;
        }
        const auto *bytes = reinterpret_cast<const char *>(data.data() + kXidFixedSize);
        xids.push_back({static_cast<long>(getLong(data.data())),
                        std::string(bytes, static_cast<std::size_t>(gtridLength)),
                        std::string(bytes + gtridLength, static_cast<std::size_t>(bqualLength))});
        data = data.subspan(kXidFixedSize + length);
    }
    return xids;
}

std::size_t toHex(std::span<const std::uint8_t> bytes, char *out) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        out[2 * i] = kDigits[bytes[i] >> 4];
        out[2 * i + 1] = kDigits[bytes[i] & 0x0f];
    }
    return 2 * bytes.size();
}

}  // namespace xajms::tools
