// Loopback endpoints and descriptor helpers of the pool tests.
#include "support/loopback.h"

#include <xajms/xajms.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

namespace xajms::test {

LoopbackPort::LoopbackPort(bool listening) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
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

LoopbackPort::~LoopbackPort() {
    close(fd_);
}

void occupyDescriptorZero() {
    const int null = open("/dev/null", O_RDONLY);
    if (null != 0) {
        dup2(null, 0);
        close(null);
    }
}

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

void enableSocketTrace(const std::string &prefix) {
    setenv("XAJMS_TRACEFILE", prefix.c_str(), 1);
    lockConnectionPool_jms();
    unlockConnectionPool_jms();
    iIndent = 0;
    std::filesystem::remove(prefix + std::to_string(getpid()) + ".trc");
}

}  // namespace xajms::test
