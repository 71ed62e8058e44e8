// Finding the trace files a command line names, and reading one of them line by line in
// bounded memory, whatever it holds.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "common/descriptor.h"

namespace xajms::trace_tool {

// The files that a path names: the file itself; every "*.trc" file of a directory; or, as
// XAJMS_TRACEFILE gives a prefix, every file named prefix + digits + ".trc". Sorted by name;
// empty when nothing matches (why says so).
std::vector<std::string> traceFiles(const std::string &path, std::string &why);

// What reading one file met besides whole lines.
struct ReadCounts {
    std::uint64_t lines = 0;    // whole lines handed on
    std::uint64_t torn = 0;     // a last line without its newline, dropped
    std::uint64_t tooLong = 0;  // lines longer than kMaxLineBytes, dropped unread
    std::uint64_t bytes = 0;
};

// Longest line kept; longer ones (binary junk, a runaway dump) are skipped in pieces.
inline constexpr std::size_t kMaxLineBytes = 64 * 1024;

// Calls `each` with every whole line of the file (without its newline), in order, reading it
// in blocks so that memory stays bounded. Returns false with the reason in why when the file
// cannot be opened or read.
bool readLines(const std::string &path, const std::function<void(std::string_view)> &each,
               ReadCounts &counts, std::string &why);

}  // namespace xajms::trace_tool
