// The listener's event loop: one epoll set over the listening socket, the termination signals
// and every accepted connection, with a timer queue for late answers. No thread per
// connection and no blocking call but the wait itself.
#pragma once

#include "common/descriptor.h"
#include "listen_socket.h"
#include "options.h"
#include "request_log.h"

namespace xajms::listener {

using tools::Descriptor;

// Blocks SIGTERM and SIGINT and returns a signal descriptor that reports them, so that the
// loop can empty the registry row before it exits. SIGPIPE is ignored.
Descriptor terminationSignals();

// Serves until a cleanup close request or a termination signal; returns the exit status.
int serve(const Options &options, const Descriptor &listener, const Descriptor &signals,
          RequestLog &log);

}  // namespace xajms::listener
