// Parsing and printing of the XID notation F:GTRID:BQUAL shared by the tools.
#include "common/xid_notation.h"

#include <charconv>

namespace xajms::tools {

namespace {

constexpr std::string_view kHexPrefix = "0x";
constexpr std::string_view kHexDigits = "0123456789abcdef";

bool printable(unsigned char c) {
    return c >= 0x20 && c <= 0x7e && c != ':';
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// One part, GTRID or BQUAL: the bytes, or nothing with the reason in why.
std::optional<std::string> parsePart(std::string_view text, std::string_view name, bool mayBeEmpty,
                                     std::string &why) {
    std::string bytes;
    if (!text.starts_with(kHexPrefix)) {
        for (const char c : text) {
            if (!printable(static_cast<unsigned char>(c))) {
                why = std::string(name) + ": text must be printable ASCII";
                return std::nullopt;
            }
        }
        if (text.empty() && !mayBeEmpty) {
            why = std::string(name) + ": empty (write 0x for no bytes)";
            return std::nullopt;
        }
        return std::string(text);
    }
    const std::string_view hex = text.substr(kHexPrefix.size());
    if (hex.size() % 2 != 0) {
        why = std::string(name) + ": odd number of hex digits";
        return std::nullopt;
    }
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        const int high = hexValue(hex[i]);
        const int low = hexValue(hex[i + 1]);
        if (high < 0 || low < 0) {
            why = std::string(name) + ": not a hex digit after 0x";
            return std::nullopt;
        }
        bytes.push_back(static_cast<char>(high * 16 + low));
    }
    return bytes;
}

bool asText(std::string_view bytes, bool emptyAsHex) {
    bool text = !bytes.starts_with(kHexPrefix) && !(bytes.empty() && emptyAsHex);
    for (const char c : bytes) {
        text = text && printable(static_cast<unsigned char>(c));
    }
    return text;
}

std::size_t partLength(std::string_view bytes, bool emptyAsHex) {
    return asText(bytes, emptyAsHex) ? bytes.size() : kHexPrefix.size() + 2 * bytes.size();
}

// Writes one part at out, which has room for partLength; returns the characters written.
std::size_t formatPart(std::string_view bytes, bool emptyAsHex, char *out) {
    if (asText(bytes, emptyAsHex)) {
        return bytes.copy(out, bytes.size());
    }
    std::size_t n = kHexPrefix.copy(out, kHexPrefix.size());
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        out[n++] = kHexDigits[byte >> 4];
        out[n++] = kHexDigits[byte & 0x0f];
    }
    return n;
}

}  // namespace

std::optional<XidParts> parseXid(std::string_view text, std::string &why) {
    const std::size_t first = text.find(':');
    const std::size_t second = first == std::string_view::npos ? first : text.find(':', first + 1);
    if (second == std::string_view::npos) {
        why = "expected F:GTRID:BQUAL";
        return std::nullopt;
    }
    XidParts xid;
    const std::string_view format = text.substr(0, first);
    const char *end = format.data() + format.size();
    const auto [ptr, ec] = std::from_chars(format.data(), end, xid.formatID);
    if (format.empty() || ec != std::errc() || ptr != end) {
        why = "the formatID must be a decimal number";
        return std::nullopt;
    }
    std::optional<std::string> gtrid =
        parsePart(text.substr(first + 1, second - first - 1), "GTRID", false, why);
    std::optional<std::string> bqual =
        gtrid ? parsePart(text.substr(second + 1), "BQUAL", true, why) : std::nullopt;
    if (!bqual) {
        return std::nullopt;
    }
    xid.gtrid = std::move(*gtrid);
    xid.bqual = std::move(*bqual);
    return xid;
}

std::size_t formattedXidLength(std::string_view gtrid, std::string_view bqual) {
    return partLength(gtrid, true) + 1 + partLength(bqual, false);
}

std::size_t formatXidTo(long formatID, std::string_view gtrid, std::string_view bqual,
                        std::span<char> out) {
    const auto [end, ec] = std::to_chars(out.data(), out.data() + out.size(), formatID);
    std::size_t n = static_cast<std::size_t>(end - out.data());
    if (ec != std::errc() || out.size() - n < 1 + formattedXidLength(gtrid, bqual)) {
        return 0;
    }
    out[n++] = ':';
    n += formatPart(gtrid, true, out.data() + n);
    out[n++] = ':';
    return n + formatPart(bqual, false, out.data() + n);
}

std::string formatXid(const XidParts &xid) {
    // 20 characters hold any formatID, its sign included.
    std::string out(20 + 1 + formattedXidLength(xid.gtrid, xid.bqual), '\0');
    out.resize(formatXidTo(xid.formatID, xid.gtrid, xid.bqual, out));
    return out;
}

}  // namespace xajms::tools
