// The request log: one line per request, naming its type, rmid, flags, XID in the tools'
// notation (the close text for close) and what the listener did with it.
#pragma once

#include "options.h"

#include <cstdint>
#include <cstdio>
#include <optional>
#include <span>
#include <string_view>

namespace xajms::listener {

// Where request lines go: a file opened for appending, standard output, or nowhere.
class RequestLog {
  public:
    explicit RequestLog(const Options &options);
    RequestLog(const RequestLog &) = delete;
    RequestLog &operator=(const RequestLog &) = delete;
    ~RequestLog();

    bool enabled() const { return file_ != nullptr; }
    // Writes one line and flushes it, so that a reader sees each request as it is handled.
    void write(std::string_view line);

  private:
    std::FILE *file_ = nullptr;
    bool owned_ = false;
};

// Room for the largest request line: the header fields and the payload of the largest
// accepted request, four characters a byte when escaped.
inline constexpr std::size_t kLineSize = 256 + 4 * kMaxRequestSize;

// Builds one request line in a fixed buffer large enough for the largest request the
// listener accepts, its payload in hex or escaped text included.
class RequestLine {
  public:
    // "#n TYPE rmid=R flags=0x...", TYPE being the request's name or "unknown type=0x...".
    RequestLine(std::uint64_t n, const Header &h);
    void xid(std::span<const std::uint8_t> payload);
    void text(std::span<const std::uint8_t> payload);
    void size(std::int32_t msgSize);
    // " -> " and the answer: the code, "xids=N" for recover, with the misbehaviour first.
    void outcome(Behaviour b, std::optional<RequestType> type, std::int32_t code,
                 std::size_t xidCount);
    void add(std::string_view s);
    std::string_view view() const { return {buffer_, length_}; }

  private:
    void format(const char *fmt, ...) __attribute__((format(printf, 2, 3)));
    char buffer_[kLineSize];
    std::size_t length_ = 0;
};

}  // namespace xajms::listener
