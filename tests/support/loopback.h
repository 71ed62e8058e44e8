// Loopback TCP endpoints for the pool tests: a listener that accepts connects into its
// backlog without ever calling accept(), and a port on which connects are refused.
#pragma once

#include <string>

namespace xajms::test {

// A socket bound to 127.0.0.1 on a port of the system's choice. Listening, it takes up to
// 128 connects into its backlog; not listening, every connect to it is refused.
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

// Points descriptor 0 at /dev/null, so that code which closes descriptor 0 closes that and
// new sockets never land on 0.
void occupyDescriptorZero();

// True when the descriptor is open in this process.
bool isOpen(int fd);

// Switches the socket-side trace on with the prefix (through XAJMS_TRACEFILE and one lock
// and unlock of the pool) and empties the file again, so that a test sees only its lines.
void enableSocketTrace(const std::string &prefix);

}  // namespace xajms::test
