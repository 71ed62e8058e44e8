// Internal interface of the trace facility: the two trace-file prefixes, the test that
// decides whether a prefix traces, and the helpers that format a line only while it does.
#pragma once

#include <xajms/xajms.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

extern "C" {
// Trace-file prefix of the switch-entry layer and the registry file ("Varnelink").
extern char jmstracefile[512];
// Trace-file prefix of the socket side: connections, pool, lookups, messages ("XASocket").
extern char sockettraceJMSfile[512];
}

namespace xajms::trace {

// Size of every formatted trace text and of the prefix buffers.
inline constexpr int kTextSize = 512;
// The longest prefix kept from XAJMS_TRACEFILE.
inline constexpr int kMaxPrefix = 486;
inline constexpr char kVarnelink[] = "Varnelink";
inline constexpr char kXASocket[] = "XASocket";
inline constexpr char kTraceVariable[] = "XAJMS_TRACEFILE";

// True when the prefix switches tracing on: anything but exactly "NoTrace" and its
// terminator in the first eight bytes. The caller passes one of the 512-byte prefixes.
inline bool on(const char *prefix) {
    return std::memcmp(prefix, "NoTrace", 8) != 0;
}

// Copies XAJMS_TRACEFILE, cut to 486 characters, into the prefix when it is set.
void copyFromEnvironment(char *prefix);

// Format a text into a 512-byte buffer and hand it to traceJMSData, traceJMSEntryData or
// traceJMSExitData; nothing is formatted while the prefix does not trace. The prefix is one
// of the library's two trace prefixes, never null.
void data(const char *prefix, const char *component, const char *function, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
void entryData(const char *prefix, const char *component, const char *function, const char *format,
               ...) __attribute__((format(printf, 4, 5)));
void exitData(const char *prefix, const char *component, const char *function, const char *format,
              ...) __attribute__((format(printf, 4, 5)));

// Restores errno on leaving, so that tracing never changes the errno a caller reports.
class ErrnoKeeper {
  public:
    ErrnoKeeper() : saved_(errno) {}
    ~ErrnoKeeper() { errno = saved_; }
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;

  private:
    int saved_;
};

// The columns that start every line: time stamp, pid text and indentation.
struct Columns {
    char stamp[30];
    char pid[8];
    char pad[21];
};

// Fills the columns from the clock, the process id and the current depth.
void fillColumns(Columns &columns);

// Opens this process's trace file for appending: the prefix cut to 486 characters, the
// process id and ".trc". Returns null when the file cannot be opened.
std::FILE *openTraceFile(const char *prefix);

}  // namespace xajms::trace
