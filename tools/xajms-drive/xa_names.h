// The XA return codes and call flags by name, both ways: what xajms-drive prints for a code
// or a flag word, and what it accepts on its command line for them.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace xajms::drive {

// "XA_OK", "XAER_RMFAIL", ...; the number in decimal for a code without a name.
std::string codeName(int code);

// A code by name (case-insensitive, aliases such as XA_RBBASE included) or as a signed
// decimal number; nothing when the text is neither.
std::optional<int> parseCode(std::string_view text);

// "TMNOFLAGS", or the set flag names joined by '|', with any bits that have no name
// appended in hex.
std::string flagNames(long flags);

// Flag names joined by '|' or '+' (case-insensitive), or one number in decimal or
// 0x-prefixed hex; nothing when any part is neither.
std::optional<long> parseFlags(std::string_view text);

}  // namespace xajms::drive
