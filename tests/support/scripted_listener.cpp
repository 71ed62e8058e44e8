// The scripted listener's thread, the registry rows of the protocol tests, and the poll
// script that lets a silent listener time out at once.
#include "support/scripted_listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>

#include "registry/registry.h"
#include "support/fakes.h"

namespace xajms::test {
namespace {

bool readAll(int fd, unsigned char *to, std::size_t length) {
    while (length > 0) {
        const ssize_t got = read(fd, to, length);
        if (got <= 0) {
            return false;
        }
        to += got;
        length -= static_cast<std::size_t>(got);
    }
    return true;
}

int beInt(const unsigned char *b) {
    return static_cast<int>((uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) |
                            (uint32_t{b[2]} << 8) | uint32_t{b[3]});
}

int peerPort(int fd) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &length) != 0 ||
        peer.sin_family != AF_INET) {
        return -1;
    }
    return ntohs(peer.sin_port);
}

}  // namespace

void putBig(Bytes &out, uint64_t value, int width) {
    for (int i = width - 1; i >= 0; --i) {
        out.push_back(static_cast<unsigned char>(value >> (8 * i)));
    }
}

Reply answer(int code) {
    Reply r;
    putBig(r.bytes, static_cast<uint32_t>(code), 4);
    return r;
}

Reply recoverReply(int xidcount, int xiddatasize, const Bytes &records) {
    Reply r;
    putBig(r.bytes, 0x2006, 4);
    putBig(r.bytes, static_cast<uint32_t>(xidcount), 4);
    putBig(r.bytes, 0, 4);
    putBig(r.bytes, static_cast<uint32_t>(xiddatasize), 4);
    r.bytes.insert(r.bytes.end(), records.begin(), records.end());
    return r;
}

Bytes flatXid(int64_t formatId, int64_t gtridLength, int64_t bqualLength, const Bytes &data) {
    Bytes b;
    putBig(b, static_cast<uint64_t>(formatId), 8);
    putBig(b, static_cast<uint64_t>(gtridLength), 8);
    putBig(b, static_cast<uint64_t>(bqualLength), 8);
    b.insert(b.end(), data.begin(), data.end());
    return b;
}

ScriptedListener::ScriptedListener(std::vector<Reply> replies) : replies_(std::move(replies)) {
    listenFd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listenFd_, reinterpret_cast<sockaddr *>(&address), length) == 0 &&
        listen(listenFd_, 64) == 0 &&
        getsockname(listenFd_, reinterpret_cast<sockaddr *>(&address), &length) == 0) {
        port_ = ntohs(address.sin_port);
    }
    if (pipe2(stopFds_, O_CLOEXEC) == 0) {
        thread_ = std::thread([this] { serve(); });
    }
}

ScriptedListener::~ScriptedListener() {
    if (thread_.joinable()) {
        const char stop = 's';
        (void)!write(stopFds_[1], &stop, 1);
        thread_.join();
    }
    for (int fd : {listenFd_, stopFds_[0], stopFds_[1]}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

std::vector<Bytes> ScriptedListener::requests(std::size_t atLeast) {
    std::unique_lock<std::mutex> hold(lock_);
    arrived_.wait_for(hold, std::chrono::seconds(5), [&] { return requests_.size() >= atLeast; });
    return requests_;
}

int ScriptedListener::connections() {
    std::lock_guard<std::mutex> hold(lock_);
    return connections_;
}

// Reads one request and answers it. Returns false when the connection is to be closed.
bool ScriptedListener::readRequest(int fd) {
    Bytes request(20);
    if (!readAll(fd, request.data(), 20)) {
        return false;
    }
    const int msgSize = beInt(request.data());
    if (msgSize > 20 && msgSize <= 4096) {
        request.resize(static_cast<std::size_t>(msgSize));
        if (!readAll(fd, request.data() + 20, request.size() - 20)) {
            return false;
        }
    }
    Reply reply{Reply::Kind::silent, {}};
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (requests_.size() < replies_.size()) {
            reply = replies_[requests_.size()];
        }
        requests_.push_back(request);
    }
    arrived_.notify_all();
    if (reply.kind == Reply::Kind::close) {
        return false;
    }
    if (reply.kind == Reply::Kind::send) {
        return write(fd, reply.bytes.data(), reply.bytes.size()) ==
               static_cast<ssize_t>(reply.bytes.size());
    }
    return true;
}

void ScriptedListener::serve() {
    std::vector<int> live;
    for (;;) {
        std::vector<pollfd> fds{{stopFds_[0], POLLIN, 0}, {listenFd_, POLLIN, 0}};
        for (int fd : live) {
            fds.push_back({fd, POLLIN, 0});
        }
        if (ppoll(fds.data(), fds.size(), nullptr, nullptr) < 0 || fds[0].revents != 0) {
            break;
        }
        if (fds[1].revents & POLLIN) {
            const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                live.push_back(fd);
                std::lock_guard<std::mutex> hold(lock_);
                connections_ += 1;
            }
        }
        for (std::size_t i = 2; i < fds.size(); ++i) {
            if (fds[i].revents != 0 && !readRequest(fds[i].fd)) {
                close(fds[i].fd);
                live.erase(std::find(live.begin(), live.end(), fds[i].fd));
            }
        }
    }
    for (int fd : live) {
        close(fd);
    }
}

void writeRegistry(const std::vector<std::pair<int, int>> &rows) {
    auto file = std::make_unique<registry::File>();
    std::memset(file.get(), 0, sizeof *file);
    std::memcpy(file->header.signature, registry::kPath, registry::kSignatureLength);
    file->header.rowCount = static_cast<int32_t>(rows.size());
    for (std::size_t r = 0; r < rows.size(); ++r) {
        file->row[r].mode = rows[r].first;
        file->row[r].port = rows[r].second;
        file->row[r].pid = 1;
        std::snprintf(file->row[r].ExGrp, sizeof file->row[r].ExGrp, "eg%zu", r);
    }
    const int fd = open(registry::kPath, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd >= 0) {
        (void)!pwrite(fd, file.get(), sizeof *file, 0);
        close(fd);
    }
}

int registryMode(int row) {
    int32_t mode = -1;
    const int fd = open(registry::kPath, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        const auto at = offsetof(registry::File, row) +
                        static_cast<std::size_t>(row) * sizeof(registry::Row) +
                        offsetof(registry::Row, mode);
        (void)!pread(fd, &mode, sizeof mode, static_cast<off_t>(at));
        close(fd);
    }
    return mode;
}

void timeOutPollsTo(std::vector<ScriptedListener *> listeners) {
    setPoll([listeners = std::move(listeners)](pollfd *fds, nfds_t count, int timeout) {
        for (nfds_t i = 0; i < count; ++i) {
            const int port = peerPort(fds[i].fd);
            for (ScriptedListener *l : listeners) {
                if (l->port() == port) {
                    l->requests(1);
                    return 0;
                }
            }
        }
        return realPoll(fds, count, timeout);
    });
}

}  // namespace xajms::test
