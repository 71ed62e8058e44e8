// Who else uses a registry file: live processes registered in its rows and processes that
// map it, so that a tool about to write the file can warn before it changes what a live
// queue manager or execution group sees.
#pragma once

#include <string>

namespace xajms::tools {

// The warning a tool prints before writing the registry file at path, without a trailing
// newline, or an empty string when no other live process uses the file: none is registered
// in a row with a live pid other than this process, and none maps the file (as far as
// /proc shows; processes of other users are visible to root only). The file that
// xajms-sandbox made for the caller's sandbox (XAJMS_SANDBOX) is never warned about. `act`
// says what the tool is about to do, e.g. "registering a listener in".
std::string sharedFileWarning(const std::string &path, const std::string &act);

}  // namespace xajms::tools
