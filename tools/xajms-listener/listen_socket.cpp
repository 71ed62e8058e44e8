// Binding and listening on the loopback address, shared by every listener program.
#include "listen_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace xajms::listener {

namespace {

[[noreturn]] void failWith(const char *what) {
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

Descriptor listenOn(int port, int &boundPort) {
    Descriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) {
        failWith("socket");
    }
    const int one = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
        failWith("cannot bind 127.0.0.1");
    }
    if (::listen(fd.get(), SOMAXCONN) != 0) {
        failWith("listen");
    }
    socklen_t length = sizeof addr;
    if (::getsockname(fd.get(), reinterpret_cast<sockaddr *>(&addr), &length) != 0) {
        failWith("getsockname");
    }
    boundPort = ntohs(addr.sin_port);
    return fd;
}

}  // namespace xajms::listener
