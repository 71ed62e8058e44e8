// A private /var/orlom for tests that use the registry file at its fixed path.
#pragma once

#include <string>

namespace xajms::test {

// Moves the calling process, once, into a private mount namespace in which /var/orlom is an
// empty tmpfs, so that the machine's own registry file is never touched. Returns an empty
// string on success, or the reason why it is not possible here (the caller skips with it).
// Call it before the test starts any thread.
std::string enterPrivateOrlom();

}  // namespace xajms::test
