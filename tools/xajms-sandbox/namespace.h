// The sandbox itself: a private mount namespace in which /var/orlom is an empty tmpfs holding
// a formatted registry file with no rows, so that nothing run inside reaches the machine's
// registry file or the processes that use it.
#pragma once

#include <string>

namespace xajms::sandbox {

// Moves this process into a new mount namespace (as root) or a new user and mount namespace
// (otherwise, mapping the caller to root inside) and mounts an empty tmpfs on /var/orlom.
// Where the machine has no /var/orlom, the tmpfs goes on /var instead and every entry of the
// real /var is bound back into it, so that /var/tmp and the rest stay as they were. Throws
// std::runtime_error with the reason when the namespace or the mount cannot be had.
void enterPrivateOrlom();

// Creates the registry file in the private /var/orlom: full length, the signature, row
// count 0, readable and writable by everyone. Returns "DEVICE:INODE" of the file, the value
// of XAJMS_SANDBOX by which the tools recognise it. Throws std::runtime_error on failure.
std::string formatRegistry();

}  // namespace xajms::sandbox
