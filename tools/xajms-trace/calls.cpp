// Entry and exit lines paired per process. The library's own nesting is not reliable: calls
// return early without an exit line, exit lines come without entries, the indentation stops
// at 19 blanks and threads share one depth; literals of one function differ between its entry
// and exit. An exit is therefore matched by its function first and its indentation second.
#include "calls.h"

#include <charconv>

#include "common/xid_notation.h"

namespace xajms::trace_tool {

namespace {

constexpr std::string_view kXidFormat = "Xid Format : ";
constexpr std::string_view kXidGtrid = "Xid gtrid length=";
constexpr std::string_view kXidBqual = "Xid bqual length=";
constexpr std::string_view kXidData = "  data=";
// The fan-out to the listeners names each port it asks and the code each one answered.
constexpr std::string_view kFanOut = "callEGListeners";
constexpr std::string_view kObtained = "obtained sockfd=";
constexpr std::string_view kForPort = " for port=";
constexpr std::string_view kReceived = "received JDBC Provider rcode ";
constexpr std::size_t kMaxXidPart = 128;

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && text.front() == ' ') {
        text.remove_prefix(1);
    }
    while (!text.empty() && text.back() == ' ') {
        text.remove_suffix(1);
    }
    return text;
}

template <typename T>
std::optional<T> number(std::string_view text) {
    T value{};
    const char *end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || ec != std::errc() || ptr != end) {
        return std::nullopt;
    }
    return value;
}

// The bytes after "  data=" of an XID dump line, or nothing when they are not hex.
std::optional<std::string> dumpedBytes(std::string_view text) {
    const std::size_t at = text.find(kXidData);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view hex = trimmed(text.substr(at + kXidData.size()));
    std::string why;
    if (hex.size() > 2 * kMaxXidPart) {
        return std::nullopt;
    }
    const auto parts = tools::parseXid("0:0x" + std::string(hex) + ":", why);
    return parts ? std::optional<std::string>(parts->gtrid) : std::nullopt;
}

}  // namespace

bool Call::xaEntry() const {
    return function.starts_with("xa_");
}

void Pairing::line(const TraceLine &line) {
    if (line.kind != LineKind::Result) {
        flushHeld();
    }
    if (line.kind != LineKind::Data) {
        xidStage_ = 0;
    }
    switch (line.kind) {
        case LineKind::Entry:
            entry(line);
            break;
        case LineKind::Exit:
            exit(line);
            break;
        case LineKind::Data:
            data(line);
            break;
        case LineKind::Result:
            result(line);
            break;
    }
}

void Pairing::entry(const TraceLine &line) {
    if (open_.size() >= kMaxOpenCalls) {
        Call oldest = std::move(open_.front());
        open_.erase(open_.begin());
        indents_.erase(indents_.begin());
        oldest.exited = false;
        oldest.end = oldest.start;
        emit(std::move(oldest));
    }
    Call call;
    call.lane = lane_;
    call.function = std::string(line.function);
    call.start = call.end = line.micros;
    call.depth = static_cast<int>(open_.size());
    open_.push_back(std::move(call));
    indents_.push_back(line.indent);
}

void Pairing::exit(const TraceLine &line) {
    const std::string key = functionKey(line.function);
    std::optional<std::size_t> match;
    for (std::size_t i = open_.size(); i-- > 0 && !match;) {
        if (indents_[i] == line.indent && functionKey(open_[i].function) == key) {
            match = i;
        }
    }
    for (std::size_t i = open_.size(); i-- > 0 && !match;) {
        if (functionKey(open_[i].function) == key) {
            match = i;
        }
    }
    if (!match) {
        Call orphan;
        orphan.lane = lane_;
        orphan.function = std::string(line.function);
        orphan.start = orphan.end = line.micros;
        orphan.depth = static_cast<int>(open_.size());
        orphan.entered = false;
        emit(std::move(orphan));
        return;
    }
    // Calls above the match did not write their exit line, except XA entries: those belong
    // to another thread of the process and stay open for their own exit line.
    std::vector<Call> others;
    std::vector<int> otherIndents;
    while (open_.size() > *match + 1) {
        Call inner = std::move(open_.back());
        if (inner.xaEntry()) {
            others.insert(others.begin(), std::move(inner));
            otherIndents.insert(otherIndents.begin(), indents_.back());
        } else {
            inner.exited = false;
            emit(std::move(inner));
        }
        open_.pop_back();
        indents_.pop_back();
    }
    Call call = std::move(open_.back());
    open_.pop_back();
    indents_.pop_back();
    for (std::size_t i = 0; i < others.size(); ++i) {
        open_.push_back(std::move(others[i]));
        indents_.push_back(otherIndents[i]);
    }
    call.end = line.micros;
    if (call.xaEntry() && !call.result) {
        held_ = std::move(call);  // its result line may follow the exit line
    } else {
        emit(std::move(call));
    }
}

void Pairing::data(const TraceLine &line) {
    const std::string_view text = trimmed(line.data);
    if (text.starts_with(kXidFormat) || xidStage_ > 0) {
        xidLine(text);
        return;
    }
    if (open_.empty()) {
        return;
    }
    std::vector<PortAnswer> &ports = open_.front().ports;
    if (line.function != kFanOut) {
        return;
    }
    if (text.starts_with(kObtained)) {
        const std::size_t at = text.find(kForPort);
        const auto port = at == std::string_view::npos
                              ? std::nullopt
                              : number<int>(trimmed(text.substr(at + kForPort.size())));
        if (port && ports.size() < kMaxPorts) {
            ports.push_back({*port, std::nullopt});
        }
    } else if (text.starts_with(kReceived) && !ports.empty() && !ports.back().answer) {
        ports.back().answer = number<int>(trimmed(text.substr(kReceived.size())));
    }
}

// The three dump lines of an XID, in a row: format, gtrid, bqual. The XID goes to every open
// call that has none yet, so the XA entry around the dump carries it too.
void Pairing::xidLine(std::string_view text) {
    if (text.starts_with(kXidFormat)) {
        const auto format = number<long>(trimmed(text.substr(kXidFormat.size())));
        xidStage_ = format ? 1 : 0;
        xidFormat_ = format.value_or(0);
        return;
    }
    const std::optional<std::string> bytes = dumpedBytes(text);
    if (xidStage_ == 1 && text.starts_with(kXidGtrid) && bytes) {
        xidGtrid_ = *bytes;
        xidStage_ = 2;
        return;
    }
    if (xidStage_ == 2 && text.starts_with(kXidBqual) && bytes) {
        const std::string xid = tools::formatXid({xidFormat_, xidGtrid_, *bytes});
        for (Call &call : open_) {
            if (call.xid.empty()) {
                call.xid = xid;
            }
        }
    }
    xidStage_ = 0;
}

// A result line belongs to the XA entry whose exit line came just before it without a result
// (open and close write their exit line first), else to the innermost open XA entry.
void Pairing::result(const TraceLine &line) {
    const std::optional<int> code = resultCode(line.data);
    if (held_ && !held_->result) {
        held_->result = code;
        flushHeld();
        return;
    }
    for (std::size_t i = open_.size(); i-- > 0;) {
        if (open_[i].xaEntry() && !open_[i].result) {
            open_[i].result = code;
            return;
        }
    }
}

void Pairing::flushHeld() {
    if (held_) {
        Call call = std::move(*held_);
        held_.reset();
        emit(std::move(call));
    }
}

// Calls leave through here. xa_start dumps no XID: it takes the XID of the next end of its
// process, the association that the coordinator closes.
void Pairing::emit(Call &&call) {
    if (!call.exited) {
        call.end = call.start;
    }
    const std::string key = functionKey(call.function);
    if (key == "xa_start" && call.xid.empty() && call.entered) {
        if (startNoXid_) {
            sink_(std::move(*startNoXid_));
        }
        startNoXid_ = std::move(call);
        return;
    }
    if (key == "xa_end" && !call.xid.empty() && startNoXid_) {
        startNoXid_->xid = call.xid;
        startNoXid_->xidFromEnd = true;
        sink_(std::move(*startNoXid_));
        startNoXid_.reset();
    }
    sink_(std::move(call));
}

void Pairing::finish() {
    flushHeld();
    while (!open_.empty()) {
        Call call = std::move(open_.back());
        open_.pop_back();
        indents_.pop_back();
        call.exited = false;
        emit(std::move(call));
    }
    if (startNoXid_) {
        sink_(std::move(*startNoXid_));
        startNoXid_.reset();
    }
}

}  // namespace xajms::trace_tool
