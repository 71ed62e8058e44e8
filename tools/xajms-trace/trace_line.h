// One line of a trace file, taken apart: time stamp, pid, indentation, kind, component,
// function literal and data. Nothing in a line is trusted; what does not fit the layout the
// library writes is refused.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace xajms::trace_tool {

enum class LineKind { Entry, Exit, Data, Result };

struct TraceLine {
    std::int64_t micros = 0;  // UTC microseconds since 1970
    std::string_view pid;     // as written: up to seven digits, possibly none
    int indent = 0;           // blanks of indentation, 0 to 19
    LineKind kind = LineKind::Data;
    std::string_view component;  // "Varnelink" or "XASocket"; empty for a result line
    std::string_view function;   // the function literal as written
    std::string_view data;       // the text after the literal, or the result's name
};

// Most blanks of indentation the library writes: deeper calls are drawn at this depth.
inline constexpr int kMaxIndent = 19;

// Parses one line without its newline; nothing when it does not have the layout of a trace
// line. The views point into text.
std::optional<TraceLine> parseTraceLine(std::string_view text);

// The XA code of a "Return code = ..." text, by name or as a number; nothing when neither.
std::optional<int> resultCode(std::string_view text);

// The name of an XA code as the trace writes it, without its padding, or the number.
std::string codeName(int code);

// A time as "YYYY-MM-DD HH:MM:SS.uuuuuu" (UTC, six digits of microseconds).
std::string formatTime(std::int64_t micros);

// The key under which entry and exit literals of one function meet: the first word, in lower
// case, without its "_jms" or "_entry" endings and with the library's misspellings mended, so
// "initializeConnectionPoolock_jms" meets "initializeConnectionPoolLock" and
// "xa_rollack_entry_jms" meets "xa_rollback_entry_jms".
std::string functionKey(std::string_view literal);

}  // namespace xajms::trace_tool
