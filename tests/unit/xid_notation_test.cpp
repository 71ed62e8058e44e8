// The XID notation F:GTRID:BQUAL that the tools share: every XID prints to a text that reads
// back to the same XID, and texts that name no XID are refused.
#include <gtest/gtest.h>

#include "common/xid_notation.h"

namespace {

using xajms::tools::formatXid;
using xajms::tools::formatXidTo;
using xajms::tools::parseXid;
using xajms::tools::XidParts;

TEST(XidNotation, EveryXidPrintsToTextThatReadsBackToIt) {
    const std::pair<XidParts, std::string> cases[] = {
        {{4711, "gtrid01", "bqual01"}, "4711:gtrid01:bqual01"},
        {{-1, "g", ""}, "-1:g:"},                    // empty branch qualifier as text
        {{0, "", ""}, "0:0x:"},                      // empty gtrid only as hex
        {{7, "a:b", "ok"}, "7:0x613a62:ok"},         // a colon forces hex
        {{7, "0xab", "0x"}, "7:0x30786162:0x3078"},  // so does a leading 0x
        {{1, std::string("\0\x01\xff", 3), "with blank"}, "1:0x0001ff:with blank"},
        {{2147483647, "x", "\x7f"}, "2147483647:x:0x7f"},  // DEL is not printable
        {{-9223372036854775807L - 1, "~", " "}, "-9223372036854775808:~: "},
    };
    for (const auto &[parts, text] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(formatXid(parts), text);
        // Into a buffer, as the listener logs: exactly the room it needs, else nothing.
        std::string room(text.size(), '?');
        EXPECT_EQ(formatXidTo(parts.formatID, parts.gtrid, parts.bqual, room), text.size());
        EXPECT_EQ(room, text);
        EXPECT_EQ(formatXidTo(parts.formatID, parts.gtrid, parts.bqual,
                              std::span<char>(room.data(), text.size() - 1)),
                  0U);
        std::string why;
        EXPECT_EQ(parseXid(text, why), parts) << why;
    }
    // Hex is read in either case; text that could be hex is taken as text.
    std::string why;
    EXPECT_EQ(parseXid("3:0xABcd:0x", why), (XidParts{3, "\xab\xcd", ""}));
    EXPECT_EQ(parseXid("3:abcd:x0", why), (XidParts{3, "abcd", "x0"}));
}

TEST(XidNotation, TextsThatNameNoXidAreRefusedWithAReason) {
    const std::pair<std::string, std::string> cases[] = {
        {"4711:gtrid01", "expected F:GTRID:BQUAL"},
        {":g:b", "the formatID must be a decimal number"},
        {"0x10:g:b", "the formatID must be a decimal number"},
        {"99999999999999999999:g:b", "the formatID must be a decimal number"},
        {"1::b", "GTRID: empty (write 0x for no bytes)"},
        {"1:0xabc:b", "GTRID: odd number of hex digits"},
        {"1:0xzz:b", "GTRID: not a hex digit after 0x"},
        {"1:g:b:c", "BQUAL: text must be printable ASCII"},
        {std::string("1:g\tx:b"), "GTRID: text must be printable ASCII"},
        {"1:g:0x1", "BQUAL: odd number of hex digits"},
    };
    for (const auto &[text, reason] : cases) {
        SCOPED_TRACE(text);
        std::string why;
        EXPECT_FALSE(parseXid(text, why).has_value());
        EXPECT_EQ(why, reason);
    }
}

}  // namespace
