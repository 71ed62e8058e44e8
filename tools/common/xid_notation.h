// The XID notation that every tool reads and prints: F:GTRID:BQUAL, with F the formatID in
// decimal (optionally negative) and GTRID and BQUAL each either printable text or 0x and the
// bytes in hex, so that any binary XID can be named and pasted from one tool into another.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace xajms::tools {

// An XID as its three parts; gtrid and bqual hold the raw bytes.
struct XidParts {
    long formatID = 0;
    std::string gtrid;
    std::string bqual;

    bool operator==(const XidParts &) const = default;
};

// Parses F:GTRID:BQUAL. GTRID is text without ':' that does not start with "0x" and is not
// empty, or "0x" followed by an even number of hex digits (none for no bytes); BQUAL is the
// same but may be empty text. Returns the parts, or nothing with the reason in why.
std::optional<XidParts> parseXid(std::string_view text, std::string &why);

// Prints the parts as F:GTRID:BQUAL: a part as text when every byte is printable ASCII other
// than ':' and the text does not start with "0x" (an empty GTRID as "0x"), else as 0x and
// lower-case hex. parseXid reads the result back to the same parts.
std::string formatXid(const XidParts &xid);

// The characters formatXid prints for these parts.
std::size_t formattedXidLength(std::string_view gtrid, std::string_view bqual);

// Prints the parts as formatXid does into out, without allocating, as a listener logs each
// request. Returns the number of characters written, or 0 (out left unspecified) when out
// has no room for formattedXidLength plus the formatID.
std::size_t formatXidTo(long formatID, std::string_view gtrid, std::string_view bqual,
                        std::span<char> out);

}  // namespace xajms::tools
