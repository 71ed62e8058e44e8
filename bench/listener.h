// xajms-listener as a child of the benchmark: started with its arguments, its "port=N" line
// read, and stopped with SIGTERM (which empties its registry row) when the object goes.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace xajms::bench {

class Listener {
  public:
    // Starts the listener and waits up to 10 seconds for its port; throws std::runtime_error
    // when it does not come.
    explicit Listener(const std::vector<std::string> &args);
    ~Listener();
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    int port() const { return port_; }

  private:
    pid_t pid_ = -1;
    int port_ = 0;
};

// A connected TCP socket to the port on 127.0.0.1 with TCP_NODELAY, as the library's own;
// closed when the object goes. Throws std::runtime_error when the connect fails.
class RawSocket {
  public:
    explicit RawSocket(int port);
    ~RawSocket();
    RawSocket(const RawSocket &) = delete;
    RawSocket &operator=(const RawSocket &) = delete;
    RawSocket(RawSocket &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }

    int fd() const { return fd_; }

  private:
    int fd_ = -1;
};

// The xajms-listener that this build made.
std::string listenerPath();

}  // namespace xajms::bench
