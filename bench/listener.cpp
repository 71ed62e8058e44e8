// Starting and stopping xajms-listener processes, and the raw sockets that measure the
// loopback limit against them.
#include "listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

extern char **environ;

namespace xajms::bench {

namespace {

[[noreturn]] void fail(const std::string &what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

// Reads the listener's standard output until its "port=N" line. Returns N, or 0 when the
// line did not come within the time.
int readPort(int out) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::string text;
    while (std::chrono::steady_clock::now() < deadline) {
        const std::size_t end = text.find('\n');
        if (end != std::string::npos) {
            return text.starts_with("port=") ? std::stoi(text.substr(5, end - 5)) : 0;
        }
        pollfd p{out, POLLIN, 0};
        if (poll(&p, 1, 100) < 0 && errno != EINTR) {
            return 0;
        }
        char buffer[256];
        const ssize_t n =
            (p.revents & (POLLIN | POLLHUP)) != 0 ? read(out, buffer, sizeof buffer) : -1;
        if (n == 0) {
            return 0;
        }
        if (n > 0) {
            text.append(buffer, static_cast<std::size_t>(n));
        }
    }
    return 0;
}

}  // namespace

std::string listenerPath() {
    return XAJMS_LISTENER_PATH;
}

Listener::Listener(const std::vector<std::string> &args) {
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        fail("pipe2");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    std::vector<std::string> all{listenerPath()};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &a : all) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    const int rc = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);
    if (rc != 0) {
        close(pipeFds[0]);
        errno = rc;
        fail("starting " + all[0]);
    }
    port_ = readPort(pipeFds[0]);
    close(pipeFds[0]);
    if (port_ <= 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        throw std::runtime_error("xajms-listener did not report its port");
    }
}

Listener::~Listener() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
}

RawSocket::RawSocket(int port) : fd_(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)) {
    if (fd_ < 0) {
        fail("socket");
    }
    const int one = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        close(fd_);
        fail("connect to the listener");
    }
}

RawSocket::~RawSocket() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

}  // namespace xajms::bench
