// Pairing the entry and exit lines of one process into calls: nesting from the indentation
// and the function literals, each call's result from its "Return code = ..." line, its XID
// from the XID dump lines inside it and the listener ports it asked.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "trace_line.h"

namespace xajms::trace_tool {

// A listener port asked inside a call and the code it answered (none: no answer came).
struct PortAnswer {
    int port = 0;
    std::optional<int> answer;
};

struct Call {
    std::size_t lane = 0;    // the process, as Summary numbers them
    std::string function;    // the entry line's literal (the exit's for an exit without entry)
    std::int64_t start = 0;  // UTC microseconds
    std::int64_t end = 0;
    int depth = 0;        // calls open around it when it began
    bool entered = true;  // false: an exit line without its entry line
    bool exited = true;   // false: an entry line whose exit line never came
    std::optional<int> result;
    std::string xid;          // in the F:GTRID:BQUAL notation; empty when none was dumped
    bool xidFromEnd = false;  // a start, which dumps no XID, given the XID of the next end
    std::vector<PortAnswer> ports;

    std::int64_t duration() const { return end > start ? end - start : 0; }
    bool xaEntry() const;  // one of the switch's XA entries (xa_open_entry_jms, ...)
};

using CallSink = std::function<void(Call &&)>;

// Open calls kept per process; deeper unpaired entries give way, the oldest first.
inline constexpr std::size_t kMaxOpenCalls = 64;
// Listener ports kept per call.
inline constexpr std::size_t kMaxPorts = 32;

// The calls of one process, handed to the sink as they end (an XA entry a little later, once
// the result line that follows its exit line is known to be there or not).
class Pairing {
  public:
    Pairing(std::size_t lane, CallSink sink) : lane_(lane), sink_(std::move(sink)) {}
    void line(const TraceLine &line);
    // Hands on every call still open or held back, as ended at the last line.
    void finish();

  private:
    void entry(const TraceLine &line);
    void exit(const TraceLine &line);
    void data(const TraceLine &line);
    void result(const TraceLine &line);
    void emit(Call &&call);
    void flushHeld();
    void xidLine(std::string_view text);

    std::size_t lane_;
    CallSink sink_;
    std::vector<Call> open_;
    std::vector<int> indents_;        // the indentation of each open call's entry line
    std::optional<Call> held_;        // an XA entry that ended without its result yet
    std::optional<Call> startNoXid_;  // a start waiting for the XID of the next end
    int xidStage_ = 0;                // XID dump lines seen in a row: 0, 1 (format) or 2 (gtrid)
    long xidFormat_ = 0;
    std::string xidGtrid_;
};

}  // namespace xajms::trace_tool
