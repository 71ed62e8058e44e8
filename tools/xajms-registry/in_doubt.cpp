// The recover request to one listener: connect to 127.0.0.1, send the 20-byte request, read
// the 16-byte head and the XID records, all within one deadline that each step recomputes.
// Nothing a listener sends is trusted: sizes are bounded and every record checked.
#include "in_doubt.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <system_error>

#include "common/descriptor.h"
#include "common/wire.h"
#include "registry/registry.h"

namespace xajms::registry_tool {

namespace {

using Clock = std::chrono::steady_clock;
using tools::Descriptor;

// TMSTARTRSCAN | TMENDRSCAN.
constexpr std::uint64_t kWholeScan = 0x01000000 | 0x00800000;
// A reply claiming more XID data than this is refused rather than read: 100,000 records of
// the largest XID.
constexpr std::int32_t kMaxDataSize = 100000 * 152;

constexpr std::string_view kHeadName = "the reply's head";

// Where one step stopped, when it did not finish.
struct Failure {
    Answer answer;
    std::string detail;
};

std::string errnoText(int error) {
    return std::generic_category().message(error);
}

// Waits for the events on fd until the deadline; returns the events, 0 when the time ran
// out, or -1 with errno on a poll error. EINTR is retried with the time left.
int waitFor(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd p{fd, events, 0};
        const int ready = ::poll(&p, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (ready >= 0 || errno != EINTR) {
            return ready > 0 ? p.revents : ready;
        }
    }
}

std::optional<Failure> connectTo(int fd, int port, Clock::time_point deadline) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
        return std::nullopt;
    }
    if (errno != EINPROGRESS) {
        return Failure{Answer::unreachable, errnoText(errno)};
    }
    if (waitFor(fd, POLLOUT, deadline) <= 0) {
        return Failure{Answer::unreachable, "no connection within the wait"};
    }
    int error = 0;
    socklen_t length = sizeof error;
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
        return Failure{Answer::unreachable, errnoText(error != 0 ? error : errno)};
    }
    return std::nullopt;
}

std::optional<Failure> sendAll(int fd, std::span<const std::uint8_t> bytes,
                               Clock::time_point deadline) {
    while (!bytes.empty()) {
        if (waitFor(fd, POLLOUT, deadline) <= 0) {
            return Failure{Answer::noAnswer, "the wait ran out before the request was sent"};
        }
        const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR && errno != EAGAIN) {
            return Failure{Answer::noAnswer, "sending the request: " + errnoText(errno)};
        }
        bytes = bytes.subspan(sent > 0 ? static_cast<std::size_t>(sent) : 0);
    }
    return std::nullopt;
}

// Reads exactly into; what says which part of the reply it is. A wait that runs out before
// the first byte leaves the detail empty: the listener said nothing at all.
std::optional<Failure> readAll(int fd, std::span<std::uint8_t> into, std::string_view what,
                               Clock::time_point deadline) {
    std::size_t got = 0;
    while (got < into.size()) {
        const std::string progress = " after " + std::to_string(got) + " of the " +
                                     std::to_string(into.size()) + " bytes of " + std::string(what);
        if (waitFor(fd, POLLIN, deadline) <= 0) {
            return Failure{Answer::noAnswer,
                           got == 0 && what == kHeadName ? "" : "the wait ran out" + progress};
        }
        const ssize_t n = ::recv(fd, into.data() + got, into.size() - got, 0);
        if (n == 0) {
            return Failure{Answer::noAnswer, "the connection was closed" + progress};
        }
        if (n < 0 && errno != EINTR && errno != EAGAIN) {
            return Failure{Answer::noAnswer, errnoText(errno) + progress};
        }
        got += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    return std::nullopt;
}

// Sends the recover request and reads the reply into asked.
std::optional<Failure> recover(int fd, Asked &asked, Clock::time_point deadline) {
    const auto request = tools::encodeRecoverRequest(kRecoverRmid, kWholeScan);
    std::array<std::uint8_t, tools::kRecoverHeadSize> head{};
    if (auto failed = sendAll(fd, request, deadline)) {
        return failed;
    }
    if (auto failed = readAll(fd, head, kHeadName, deadline)) {
        return failed;
    }
    const tools::RecoverHead h = tools::decodeRecoverHead(head.data());
    // As the library reads it: a count or size below 1 means nothing in doubt.
    if (h.count < 1 || h.size < 1) {
        return std::nullopt;
    }
    if (h.size > kMaxDataSize) {
        return Failure{Answer::badReply, "xiddatasize " + std::to_string(h.size) + " is above " +
                                             std::to_string(kMaxDataSize)};
    }
    std::vector<std::uint8_t> data(static_cast<std::size_t>(h.size));
    if (auto failed = readAll(fd, data, "the XID records", deadline)) {
        return failed;
    }
    std::string why;
    auto xids = tools::decodeRecoverRecords(data, h.count, why);
    if (!xids) {
        return Failure{Answer::badReply, why};
    }
    asked.xids = std::move(*xids);
    return std::nullopt;
}

Asked ask(const tools::ShownRow &row, int waitMs) {
    Asked asked{row, Answer::answered, {}, {}};
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(waitMs);
    const Descriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    std::optional<Failure> failed;
    if (!fd) {
        failed = Failure{Answer::unreachable, "socket: " + errnoText(errno)};
    } else {
        failed = connectTo(fd.get(), row.port, deadline);
    }
    if (!failed) {
        failed = recover(fd.get(), asked, deadline);
    }
    if (failed) {
        asked.answer = failed->answer;
        asked.detail = std::move(failed->detail);
        asked.xids.clear();
    }
    return asked;
}

}  // namespace

std::vector<Asked> askListeners(const tools::Snapshot &snapshot, int waitMs) {
    std::vector<Asked> all;
    for (const tools::ShownRow &row : snapshot.rows) {
        if (row.mode != registry::kModeEmpty && row.port >= 1 && row.port <= 65535) {
            all.push_back(ask(row, waitMs));
        }
    }
    return all;
}

}  // namespace xajms::registry_tool
