// Loopback TCP endpoints and descriptor helpers for the pool tests.
#pragma once

#include <string>

namespace xajms::test {

// A socket bound to a port of 127.0.0.1. Listening, it takes up to 128 connects into its
// backlog without accept(); not listening, it refuses every connect.
class LoopbackPort {
  public:
    explicit LoopbackPort(bool listening = true);
    ~LoopbackPort();
    LoopbackPort(const LoopbackPort &) = delete;
    LoopbackPort &operator=(const LoopbackPort &) = delete;
    int port() const { return port_; }

  private:
    int fd_ = -1;
    int port_ = 0;
};

// Points descriptor 0 at /dev/null, so that new sockets never land on 0.
void occupyDescriptorZero();
bool isOpen(int fd);

// Switches the socket trace on (XAJMS_TRACEFILE and one lock and unlock of the pool), then
// empties the trace file and the depth, so that a test sees only its own lines.
void enableSocketTrace(const std::string &prefix);

}  // namespace xajms::test
