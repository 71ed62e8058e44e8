// The request log and the building of its lines. A line is formatted into a fixed buffer and
// written with one fwrite and a flush, so the hot path allocates nothing.
#include "request_log.h"

#include <cstdarg>
#include <stdexcept>
#include <system_error>

namespace xajms::listener {

RequestLog::RequestLog(const Options &options) {
    if (options.quiet) {
        return;
    }
    if (options.logPath.empty()) {
        file_ = stdout;
        return;
    }
    file_ = std::fopen(options.logPath.c_str(), "ae");
    if (file_ == nullptr) {
        throw std::system_error(errno, std::generic_category(),
                                "cannot open log file " + options.logPath);
    }
    owned_ = true;
}

RequestLog::~RequestLog() {
    if (owned_) {
        std::fclose(file_);
    }
}

void RequestLog::write(std::string_view line) {
    if (file_ == nullptr) {
        return;
    }
    // A reader that has gone away (a closed pipe) must not stop the listener: errors are
    // ignored, SIGPIPE is.
    std::fwrite(line.data(), 1, line.size(), file_);
    std::fputc('\n', file_);
    std::fflush(file_);
}

RequestLine::RequestLine(std::uint64_t n, const Header &h) {
    format("#%llu ", static_cast<unsigned long long>(n));
    if (const auto type = requestTypeFromCode(h.msgType)) {
        add(requestName(*type));
    } else {
        format("unknown type=0x%x", static_cast<unsigned>(h.msgType));
    }
    format(" rmid=%d flags=0x%016llx", h.rmid, static_cast<unsigned long long>(h.flags));
}

void RequestLine::xid(std::span<const std::uint8_t> payload) {
    XidView v{};
    switch (decodeXid(payload, v)) {
        case XidStatus::absent:
            add(" xid=none");
            return;
        case XidStatus::malformed:
            add(" xid=malformed:");
            length_ += toHex(payload, buffer_ + length_);
            return;
        case XidStatus::valid:
            break;
    }
    // As --xid and the other tools read it back; the buffer has room for any payload.
    add(" xid=");
    const auto text = [](std::span<const std::uint8_t> part) {
        return std::string_view(reinterpret_cast<const char *>(part.data()), part.size());
    };
    length_ += formatXidTo(static_cast<long>(v.formatId), text(v.gtrid), text(v.bqual),
                           std::span<char>(buffer_ + length_, sizeof buffer_ - length_));
}

void RequestLine::text(std::span<const std::uint8_t> payload) {
    add(" text=\"");
    for (const std::uint8_t c : payload) {
        if (c >= 0x20 && c < 0x7f && c != '"' && c != '\\') {
            buffer_[length_++] = static_cast<char>(c);
        } else {
            format("\\x%02x", c);
        }
    }
    add("\"");
}

void RequestLine::size(std::int32_t msgSize) {
    format(" msgSize=%d", msgSize);
}

void RequestLine::outcome(Behaviour b, std::optional<RequestType> type, std::int32_t code,
                          std::size_t xidCount) {
    add(" -> ");
    switch (b.kind) {
        case Misbehaviour::never:
            add("never");
            return;
        case Misbehaviour::drop:
            add("drop");
            return;
        case Misbehaviour::late:
            format("late %d.%03ds ", b.lateMs / 1000, b.lateMs % 1000);
            break;
        case Misbehaviour::half:
            add("half ");
            break;
        case Misbehaviour::none:
            break;
    }
    if (type == RequestType::recover) {
        format("xids=%zu", xidCount);
    } else {
        format("%d", code);
    }
}

void RequestLine::add(std::string_view s) {
    const std::size_t room = sizeof buffer_ - length_;
    const std::size_t n = s.size() < room ? s.size() : room;
    s.copy(buffer_ + length_, n);
    length_ += n;
}

void RequestLine::format(const char *fmt, ...) {
    const std::size_t room = sizeof buffer_ - length_;
    std::va_list args;
    va_start(args, fmt);
    const int n = std::vsnprintf(buffer_ + length_, room, fmt, args);
    va_end(args);
    if (n > 0) {
        length_ += static_cast<std::size_t>(n) < room ? static_cast<std::size_t>(n) : room - 1;
    }
}

}  // namespace xajms::listener
