// The execution group's listener: a thread that accepts the library's connections on an
// ephemeral loopback port registered in the registry file, and one thread per connection
// that reads requests, bounds-checked, and answers them from the branch outcomes. A request
// that cannot be one of the library's closes its connection only. "Cleanup Java Process"
// stops the listener: requests in flight finish, the row is emptied, prepared branches stay
// in PostgreSQL for recovery.
#include "eg.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <set>
#include <utility>

#include "listen_socket.h"
#include "registry_row.h"

namespace xajms::eg {

namespace {

using listener::Descriptor;
using listener::RequestType;

class Listener {
  public:
    explicit Listener(const std::string &eg);
    ~Listener();
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    void requestStop();
    // Empties the registry row, once: when the listener stops, or when the process exits.
    void emptyRow();

  private:
    void run();
    void serve(int fd);
    bool handle(int fd, const listener::Header &h, std::span<const std::uint8_t> payload);
    void addWorker(int fd);
    void endWorker(int fd);
    void stopWorkers();

    Descriptor socket_;
    int port_ = 0;
    std::mutex rowMutex_;
    std::optional<listener::RegistryRow> row_;
    Descriptor wake_;
    // The connections being served, each by a detached thread of its own.
    std::mutex workersMutex_;
    std::condition_variable workersEnded_;
    std::set<int> workers_;
};

// Whether a listener runs, and whether one has stopped on a close. Never destroyed: the
// listener thread may still use it while the process exits.
struct State {
    std::mutex m;
    std::condition_variable stopped;
    Listener *current = nullptr;
    bool running = false;
    bool closedOnce = false;
};

State &state() {
    static State *const listenerState = new State;
    return *listenerState;
}

// A host that exits without a close leaves no row behind: nobody would answer on its port.
void emptyRowAtExit() {
    State &s = state();
    const std::lock_guard<std::mutex> lock(s.m);
    if (s.current != nullptr) {
        s.current->emptyRow();
    }
}

// Moves all of the bytes through the call (read or send), retrying EINTR. Returns false when
// the connection ended or failed first.
template <typename Byte, typename Call>
bool whole(Byte *at, std::size_t length, Call call) {
    while (length > 0) {
        const ssize_t n = call(at, length);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        at += n;
        length -= static_cast<std::size_t>(n);
    }
    return true;
}

bool readFull(int fd, std::uint8_t *at, std::size_t length) {
    return whole(at, length, [fd](std::uint8_t *p, std::size_t n) { return ::read(fd, p, n); });
}

bool writeFull(int fd, const std::uint8_t *at, std::size_t length) {
    return whole(at, length, [fd](const std::uint8_t *p, std::size_t n) {
        return ::send(fd, p, n, MSG_NOSIGNAL);
    });
}

// The answer to a completion request: XAER_INVAL for an XID that cannot be a branch.
int complete(RequestType type, const listener::XidView &v, int rmid, std::uint64_t flags) {
    XID xid{};
    if (v.gtrid.size() > 64 || v.bqual.size() > 64) {
        return XAER_INVAL;
    }
    xid.formatID = static_cast<long>(v.formatId);
    xid.gtrid_length = static_cast<long>(v.gtrid.size());
    xid.bqual_length = static_cast<long>(v.bqual.size());
    std::copy(v.gtrid.begin(), v.gtrid.end(), xid.data);
    std::copy(v.bqual.begin(), v.bqual.end(), xid.data + v.gtrid.size());
    switch (type) {
        case RequestType::prepare:
            return prepareBranch(xid, rmid);
        case RequestType::commit:
            return commitBranch(xid, rmid, (flags & static_cast<std::uint64_t>(TMONEPHASE)) != 0);
        case RequestType::rollback:
            return rollbackBranch(xid, rmid);
        default:
            return XAER_NOTA;  // forget: no heuristic outcome is ever kept
    }
}

Listener::Listener(const std::string &eg) : wake_(::eventfd(0, EFD_CLOEXEC)) {
    socket_ = listener::listenOn(0, port_);
    if (!wake_) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    row_.emplace(std::string(listener::kDefaultRegistry), listener::Mode::broker, port_, eg,
                 listener::Sharing::exclusive);
    // Detached: it ends on its own after a close, or with the process.
    std::thread([this] { run(); }).detach();
}

Listener::~Listener() = default;

void Listener::emptyRow() {
    const std::lock_guard<std::mutex> lock(rowMutex_);
    row_.reset();
}

void Listener::requestStop() {
    const std::uint64_t one = 1;
    (void)!::write(wake_.get(), &one, sizeof one);
}

// Accepts until told to stop, then stops the workers, empties the row and says so.
void Listener::run() {
    std::array<pollfd, 2> fds{{{socket_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}}};
    while (::poll(fds.data(), fds.size(), -1) >= 0 || errno == EINTR) {
        if ((fds[1].revents & POLLIN) != 0) {
            break;
        }
        const int fd = ::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            addWorker(fd);
        }
    }
    stopWorkers();
    emptyRow();
    socket_.reset();
    State &s = state();
    const std::lock_guard<std::mutex> lock(s.m);
    s.running = false;
    s.closedOnce = true;
    s.stopped.notify_all();
}

// Serves a new connection on a thread of its own; a connection that gets no thread is closed.
// Nothing a connection does may end the process: a failure inside (out of memory) only
// drops that connection.
void Listener::addWorker(int fd) {
    try {
        const std::lock_guard<std::mutex> lock(workersMutex_);
        workers_.insert(fd);
    } catch (const std::exception &e) {
        report("a listener connection was refused: %s", e.what());
        ::close(fd);
        return;
    }
    try {
        std::thread([this, fd] {
            try {
                serve(fd);
            } catch (const std::exception &e) {
                report("a listener connection failed: %s", e.what());
            }
            endWorker(fd);
        }).detach();
    } catch (const std::exception &e) {
        report("a listener connection was refused: %s", e.what());
        endWorker(fd);
    }
}

// Closes a served connection; the last one lets a stopping listener go on.
void Listener::endWorker(int fd) {
    const std::lock_guard<std::mutex> lock(workersMutex_);
    ::close(fd);
    workers_.erase(fd);
    if (workers_.empty()) {
        workersEnded_.notify_all();
    }
}

// Lets every request in flight finish: a worker's next read sees the end of its input.
void Listener::stopWorkers() {
    std::unique_lock<std::mutex> lock(workersMutex_);
    for (const int fd : workers_) {
        ::shutdown(fd, SHUT_RD);
    }
    workersEnded_.wait(lock, [this] { return workers_.empty(); });
}

// Serves one connection until its peer closes it, a request is malformed, or the listener
// stops. The caller closes the descriptor.
void Listener::serve(int fd) {
    std::array<std::uint8_t, listener::kMaxRequestSize> in{};
    while (readFull(fd, in.data(), listener::kHeaderSize)) {
        const listener::Header h = listener::decodeHeader(in.data());
        const std::size_t length = listener::requestLength(h);
        if (length == 0 ||
            !readFull(fd, in.data() + listener::kHeaderSize, length - listener::kHeaderSize)) {
            break;
        }
        const auto payload =
            std::span<const std::uint8_t>(in.data(), length).subspan(listener::kHeaderSize);
        if (!handle(fd, h, payload)) {
            break;
        }
    }
    ::shutdown(fd, SHUT_RDWR);
}

// Answers one request. Returns false when the connection is to be dropped.
bool Listener::handle(int fd, const listener::Header &h, std::span<const std::uint8_t> payload) {
    const auto type = listener::requestTypeFromCode(h.msgType);
    if (!type) {
        return false;
    }
    if (*type == RequestType::close) {
        if (std::string_view(reinterpret_cast<const char *>(payload.data()), payload.size()) ==
            listener::kCleanupText) {
            requestStop();
        }
        return true;
    }
    if (*type == RequestType::recover) {
        std::vector<listener::XidParts> xids;
        if (!recoverBranches(h.rmid, xids)) {
            return false;
        }
        const auto reply = listener::encodeRecoverReply(xids, std::nullopt, std::nullopt);
        return writeFull(fd, reply.data(), reply.size());
    }
    listener::XidView xid{};
    const listener::XidStatus status = listener::decodeXid(payload, xid);
    if (status == listener::XidStatus::malformed) {
        return false;
    }
    const int code =
        status == listener::XidStatus::absent ? XAER_INVAL : complete(*type, xid, h.rmid, h.flags);
    std::array<std::uint8_t, 4> answer{};
    listener::putInt(answer.data(), code);
    return writeFull(fd, answer.data(), answer.size());
}

}  // namespace

std::string startListener(const std::string &eg) {
    State &s = state();
    std::unique_lock<std::mutex> lock(s.m);
    if (s.running) {
        return {};
    }
    // A listener that stopped on a close is joined before a new one starts.
    Listener *old = std::exchange(s.current, nullptr);
    lock.unlock();
    delete old;
    lock.lock();
    if (s.running || s.current != nullptr) {
        return {};
    }
    try {
        static const bool hooked = std::atexit(emptyRowAtExit) == 0;
        (void)hooked;
        s.current = new Listener(eg);
        s.running = true;
        return {};
    } catch (const std::exception &e) {
        return e.what();
    }
}

bool waitClosed(int timeoutMs) {
    State &s = state();
    std::unique_lock<std::mutex> lock(s.m);
    const auto closed = [&s] { return s.closedOnce && !s.running; };
    if (timeoutMs < 0) {
        s.stopped.wait(lock, closed);
        return true;
    }
    return s.stopped.wait_for(lock, std::chrono::milliseconds(timeoutMs), closed);
}

}  // namespace xajms::eg
