// Loopback TCP ports and descriptor helpers of the pool and protocol tests.
#pragma once

#include <xajms/xajms.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace xajms::test {

// A socket bound to a port of 127.0.0.1. Listening, it takes up to 128 connects into its
// backlog without accept(); not listening, it refuses every connect.
class LoopbackPort {
  public:
    explicit LoopbackPort(bool listening = true) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
            (listening && listen(fd_, 128) != 0) ||
            getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
            std::abort();
        }
        port_ = ntohs(address.sin_port);
    }
    ~LoopbackPort() { close(fd_); }
    LoopbackPort(const LoopbackPort &) = delete;
    LoopbackPort &operator=(const LoopbackPort &) = delete;
    int port() const { return port_; }
    int fd() const { return fd_; }

  private:
    int fd_;
    int port_ = 0;
};

inline bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// The open descriptors of the process, descriptor 0 left out (an emptied pool slot closes it).
inline int openDescriptors() {
    const std::filesystem::directory_iterator fds("/proc/self/fd");  // holds one itself
    return static_cast<int>(std::distance(begin(fds), end(fds))) - 1 - (isOpen(0) ? 1 : 0);
}

// Opens descriptor 0 when it is closed, so that new sockets never land on the pool's "none".
inline void occupyDescriptorZero() {
    if (!isOpen(0)) {
        (void)!open("/dev/null", O_RDONLY);  // the lowest free descriptor: 0
    }
}

// Switches the socket trace on (XAJMS_TRACEFILE, one lock and unlock of the pool), then
// empties the trace file and the depth, so that a test sees only its own lines.
inline void enableSocketTrace(const std::string &prefix) {
    setenv("XAJMS_TRACEFILE", prefix.c_str(), 1);
    lockConnectionPool_jms();
    unlockConnectionPool_jms();
    iIndent = 0;
    std::filesystem::remove(prefix + std::to_string(getpid()) + ".trc");
}

}  // namespace xajms::test
