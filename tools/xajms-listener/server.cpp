// The event loop: accepts connections, frames requests out of each connection's input,
// answers them at once, late (from a timer queue), never, or by closing, and stops on a
// cleanup close or a termination signal. Each connection owns fixed buffers; answers point
// at the connection's 4-byte code or at the recover reply built once at start-up.
#include "server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <queue>
#include <system_error>
#include <vector>

namespace xajms::listener {

namespace {

constexpr int kMaxEvents = 64;

[[noreturn]] void failWith(const char *what) {
    throw std::system_error(errno, std::generic_category(), what);
}

std::int64_t nowMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return std::int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1000000;
}

struct Connection {
    Descriptor fd;
    std::uint64_t generation = 0;
    std::array<std::uint8_t, kMaxRequestSize> in{};
    std::size_t inLength = 0;
    std::array<std::uint8_t, 4> code{};
    // Bytes of an answer still to be written (the socket was full).
    const std::uint8_t *out = nullptr;
    std::size_t outLength = 0;
    // An answer held back until its timer fires; no request is read meanwhile.
    const std::uint8_t *held = nullptr;
    std::size_t heldLength = 0;
    bool waiting = false;
};

struct Timer {
    std::int64_t deadline;
    int fd;
    std::uint64_t generation;
    bool operator>(const Timer &o) const { return deadline > o.deadline; }
};

enum class After { keep, close };

class Server {
  public:
    Server(const Options &options, int listener, int signals, RequestLog &log);
    int run();

  private:
    void add(int fd, std::uint32_t events, int op);
    void dispatch(const epoll_event &e);
    void acceptAll();
    void readInput(Connection &c);
    bool processInput(Connection &c);
    After handle(Connection &c, const Header &h, std::span<const std::uint8_t> request);
    After answer(Connection &c, Behaviour b, const std::uint8_t *bytes, std::size_t length);
    bool send(Connection &c, const std::uint8_t *bytes, std::size_t length);
    void flush(Connection &c);
    void fireTimers();
    int timeout() const;
    void close(Connection &c) { connections_[static_cast<std::size_t>(c.fd.get())].reset(); }

    const Options &options_;
    RequestLog &log_;
    int listener_;
    int signals_;
    Descriptor epoll_;
    std::vector<std::uint8_t> recoverReply_;
    std::vector<std::unique_ptr<Connection>> connections_;
    std::priority_queue<Timer, std::vector<Timer>, std::greater<>> timers_;
    std::uint64_t requests_ = 0;
    std::uint64_t generations_ = 0;
    bool done_ = false;
};

Server::Server(const Options &options, int listener, int signals, RequestLog &log)
    : options_(options),
      log_(log),
      listener_(listener),
      signals_(signals),
      epoll_(::epoll_create1(EPOLL_CLOEXEC)),
      recoverReply_(
          encodeRecoverReply(options.xids, options.recoverCount, options.recoverDataSize)) {
    if (!epoll_) {
        failWith("epoll_create1");
    }
    add(listener_, EPOLLIN, EPOLL_CTL_ADD);
    add(signals_, EPOLLIN, EPOLL_CTL_ADD);
}

void Server::add(int fd, std::uint32_t events, int op) {
    epoll_event e{};
    e.events = events;
    e.data.fd = fd;
    if (::epoll_ctl(epoll_.get(), op, fd, &e) != 0) {
        failWith("epoll_ctl");
    }
}

int Server::run() {
    std::array<epoll_event, kMaxEvents> events{};
    while (!done_) {
        const int n = ::epoll_wait(epoll_.get(), events.data(), kMaxEvents, timeout());
        if (n < 0 && errno != EINTR) {
            failWith("epoll_wait");
        }
        for (int i = 0; i < n && !done_; ++i) {
            dispatch(events[static_cast<std::size_t>(i)]);
        }
        if (!done_) {
            fireTimers();
        }
    }
    return 0;
}

int Server::timeout() const {
    if (timers_.empty()) {
        return -1;
    }
    const std::int64_t left = timers_.top().deadline - nowMs();
    return left <= 0 ? 0 : static_cast<int>(left);
}

void Server::dispatch(const epoll_event &e) {
    if (e.data.fd == listener_) {
        acceptAll();
        return;
    }
    if (e.data.fd == signals_) {
        signalfd_siginfo info{};
        if (::read(signals_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
            done_ = true;
        }
        return;
    }
    const auto slot = static_cast<std::size_t>(e.data.fd);
    if (slot >= connections_.size() || !connections_[slot]) {
        return;
    }
    Connection &c = *connections_[slot];
    if ((e.events & EPOLLERR) != 0) {
        close(c);
    } else if ((e.events & EPOLLOUT) != 0) {
        flush(c);
    } else if ((e.events & (EPOLLIN | EPOLLHUP)) != 0) {
        readInput(c);
    }
}

void Server::acceptAll() {
    for (;;) {
        const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            // EAGAIN ends the batch; anything else (a connection reset before it was taken,
            // no descriptor left) is retried when epoll reports the socket again.
            return;
        }
        const int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        const auto slot = static_cast<std::size_t>(fd);
        if (slot >= connections_.size()) {
            connections_.resize(slot + 1);
        }
        connections_[slot] = std::make_unique<Connection>();
        connections_[slot]->fd.reset(fd);
        connections_[slot]->generation = ++generations_;
        add(fd, EPOLLIN, EPOLL_CTL_ADD);
    }
}

void Server::readInput(Connection &c) {
    const std::size_t room = c.in.size() - c.inLength;
    const ssize_t n = ::read(c.fd.get(), c.in.data() + c.inLength, room);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
        return;
    }
    if (n <= 0) {
        close(c);
        return;
    }
    c.inLength += static_cast<std::size_t>(n);
    processInput(c);
}

// Handles every complete request in the input, in order, until one is held for a timer or
// has its answer waiting for room in the socket. Returns false when the connection is closed.
bool Server::processInput(Connection &c) {
    std::size_t at = 0;
    while (!done_ && !c.waiting && c.outLength == 0 && c.inLength - at >= kHeaderSize) {
        const Header h = decodeHeader(c.in.data() + at);
        const std::size_t length = requestLength(h);
        if (length == 0) {
            RequestLine line(++requests_, h);
            line.size(h.msgSize);
            line.add(" -> drop");
            log_.write(line.view());
            close(c);
            return false;
        }
        if (c.inLength - at < length) {
            break;
        }
        if (handle(c, h, std::span(c.in.data() + at, length)) == After::close) {
            close(c);
            return false;
        }
        at += length;
    }
    std::memmove(c.in.data(), c.in.data() + at, c.inLength - at);
    c.inLength -= at;
    return true;
}

After Server::handle(Connection &c, const Header &h, std::span<const std::uint8_t> request) {
    const std::uint64_t n = ++requests_;
    const auto payload = request.subspan(kHeaderSize);
    const auto type = requestTypeFromCode(h.msgType);
    RequestLine line(n, h);
    if (!type) {
        line.size(h.msgSize);
        line.add(" -> drop");
        log_.write(line.view());
        return After::close;
    }
    if (*type == RequestType::close) {
        const bool cleanup = std::string_view(reinterpret_cast<const char *>(payload.data()),
                                              payload.size()) == kCleanupText;
        line.text(payload);
        line.add(cleanup ? " -> exit" : " -> ignored");
        log_.write(line.view());
        done_ = cleanup;
        return After::keep;
    }
    const Behaviour b = behaviourFor(options_, n, *type);
    std::int32_t code = 0;
    if (*type != RequestType::recover) {
        code = codeFor(options_, *type, payload);
        putInt(c.code.data(), code);
        line.xid(payload);
    }
    if (log_.enabled()) {
        line.outcome(b, type, code, options_.xids.size());
        log_.write(line.view());
    }
    if (*type == RequestType::recover) {
        return answer(c, b, recoverReply_.data(), recoverReply_.size());
    }
    return answer(c, b, c.code.data(), c.code.size());
}

After Server::answer(Connection &c, Behaviour b, const std::uint8_t *bytes, std::size_t length) {
    switch (b.kind) {
        case Misbehaviour::none:
            return send(c, bytes, length) ? After::keep : After::close;
        case Misbehaviour::late:
            c.waiting = true;
            c.held = bytes;
            c.heldLength = length;
            timers_.push(Timer{nowMs() + b.lateMs, c.fd.get(), c.generation});
            add(c.fd.get(), 0, EPOLL_CTL_MOD);
            return After::keep;
        case Misbehaviour::never:
            return After::keep;
        case Misbehaviour::drop:
            return After::close;
        case Misbehaviour::half:
            ::send(c.fd.get(), bytes, length / 2, MSG_NOSIGNAL);
            return After::close;
    }
    return After::close;
}

// Writes an answer; what the socket cannot take now is written when it reports room.
// Returns false when the connection failed and must be closed.
bool Server::send(Connection &c, const std::uint8_t *bytes, std::size_t length) {
    ssize_t n = ::send(c.fd.get(), bytes, length, MSG_NOSIGNAL);
    if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
        return false;
    }
    n = n < 0 ? 0 : n;
    if (static_cast<std::size_t>(n) < length) {
        c.out = bytes + n;
        c.outLength = length - static_cast<std::size_t>(n);
        add(c.fd.get(), EPOLLOUT, EPOLL_CTL_MOD);
    }
    return true;
}

void Server::flush(Connection &c) {
    const std::uint8_t *bytes = c.out;
    const std::size_t length = c.outLength;
    c.outLength = 0;
    if (!send(c, bytes, length)) {
        close(c);
    } else if (c.outLength == 0) {
        add(c.fd.get(), EPOLLIN, EPOLL_CTL_MOD);
        processInput(c);
    }
}

void Server::fireTimers() {
    const std::int64_t now = nowMs();
    while (!done_ && !timers_.empty() && timers_.top().deadline <= now) {
        const Timer t = timers_.top();
        timers_.pop();
        const auto slot = static_cast<std::size_t>(t.fd);
        if (slot >= connections_.size() || !connections_[slot] ||
            connections_[slot]->generation != t.generation) {
            continue;
        }
        Connection &c = *connections_[slot];
        c.waiting = false;
        if (!send(c, c.held, c.heldLength)) {
            close(c);
        } else if (c.outLength == 0) {
            add(c.fd.get(), EPOLLIN, EPOLL_CTL_MOD);
            processInput(c);
        }
    }
}

}  // namespace

Descriptor terminationSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    if (::sigprocmask(SIG_BLOCK, &set, nullptr) != 0) {
        failWith("sigprocmask");
    }
    ::signal(SIGPIPE, SIG_IGN);
    Descriptor fd(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
    if (!fd) {
        failWith("signalfd");
    }
    return fd;
}

int serve(const Options &options, const Descriptor &listener, const Descriptor &signals,
          RequestLog &log) {
    Server server(options, listener.get(), signals.get(), log);
    return server.run();
}

}  // namespace xajms::listener
