// The listening socket of a listener: a non-blocking TCP socket on the loopback address.
#pragma once

#include "common/descriptor.h"

namespace xajms::listener {

using tools::Descriptor;

// Binds a non-blocking socket to 127.0.0.1:port and listens; boundPort receives the port
// actually bound (the free one picked for port 0). Throws std::system_error on failure.
Descriptor listenOn(int port, int &boundPort);

}  // namespace xajms::listener
