// The trace operations: each opens the per-process trace file named by its prefix, writes
// one entry, exit or data line (three for an XID dump), flushes and closes it again, so
// that every line is on disk when the call returns. The nesting depth lives in iIndent.
#include "trace/trace.h"

#include <unistd.h>

namespace xajms::trace {

void fillColumns(Columns &c) {
    getTimeStamp(c.stamp);
    intToAlpha_jms(getpid(), c.pid);
    indent(c.pad);
}

std::FILE *openTraceFile(const char *prefix) {
    char name[kTextSize];
    std::snprintf(name, sizeof name, "%.486s%d.trc", prefix, getpid());
    return std::fopen(name, "a");
}

}  // namespace xajms::trace

namespace {

using xajms::trace::Columns;
using xajms::trace::ErrnoKeeper;
using xajms::trace::fillColumns;
using xajms::trace::openTraceFile;

bool traces(const char *prefix) {
    return prefix != nullptr && xajms::trace::on(prefix);
}

void closeAfterExit(std::FILE *file) {
    if (file != nullptr) {
        std::fclose(file);
    }
    if (iIndent > 1) {
        iIndent -= 2;
    }
}

// Writes an entry line with or without data; the depth grows only when a line is written.
void writeEntry(const char *prefix, const char *component, const char *function, const char *data) {
    if (!traces(prefix)) {
        return;
    }
    ErrnoKeeper keep;
    std::FILE *file = openTraceFile(prefix);
    if (file == nullptr) {
        return;
    }
    if (component != nullptr && function != nullptr) {
        iIndent += 2;
        Columns c;
        fillColumns(c);
        if (data == nullptr) {
            std::fprintf(file, "%s %s %s %s { %s %s \n", c.stamp, c.pid, "      ", c.pad, component,
                         function);
        } else {
            std::fprintf(file, "%s %s %s %s { %s %s   %s\n", c.stamp, c.pid, "      ", c.pad,
                         component, function, data);
        }
        std::fflush(file);
    }
    std::fclose(file);
}

}  // namespace

extern "C" {

void traceJMSEntry(const char *prefix, const char *component, const char *function) {
    writeEntry(prefix, component, function, nullptr);
}

// A null data text is printed as "(null)"; callers always pass a text.
void traceJMSEntryData(const char *prefix, const char *component, const char *function,
                       const char *data) {
    writeEntry(prefix, component, function, data != nullptr ? data : "(null)");
}

void traceJMSExit(const char *prefix, const char *component, const char *function) {
    if (!traces(prefix)) {
        return;
    }
    ErrnoKeeper keep;
    std::FILE *file = openTraceFile(prefix);
    if (file != nullptr && component != nullptr && function != nullptr) {
        Columns c;
        fillColumns(c);
        std::fprintf(file, "%s %s %s %s } %s %s \n", c.stamp, c.pid, "      ", c.pad, component,
                     function);
        std::fflush(file);
    }
    closeAfterExit(file);
}

void traceJMSExitData(const char *prefix, const char *component, const char *function,
                      const char *data) {
    if (!traces(prefix)) {
        return;
    }
    ErrnoKeeper keep;
    std::FILE *file = openTraceFile(prefix);
    if (file != nullptr && component != nullptr && function != nullptr && data != nullptr) {
        Columns c;
        fillColumns(c);
        std::fprintf(file, "%s %s %s %s } %s %s   %s\n", c.stamp, c.pid, "      ", c.pad, component,
                     function, data);
        std::fflush(file);
    }
    closeAfterExit(file);
}

// A null data text is printed as "(null)"; callers always pass a text.
void traceJMSData(const char *prefix, const char *component, const char *function,
                  const char *data) {
    if (!traces(prefix)) {
        return;
    }
    ErrnoKeeper keep;
    Columns c;
    fillColumns(c);
    std::FILE *file = openTraceFile(prefix);
    if (file == nullptr) {
        return;
    }
    if (component != nullptr && function != nullptr) {
        std::fprintf(file, "%s %s %s %s   %s %s   %s\n", c.stamp, c.pid, "      ", c.pad, component,
                     function, data != nullptr ? data : "(null)");
        std::fflush(file);
    }
    std::fclose(file);
}

void traceJMSMsgFlags(const char *prefix, const char *component, const char *function,
                      unsigned long flags) {
    if (!traces(prefix)) {
        return;
    }
    char text[xajms::trace::kTextSize];
    std::snprintf(text, sizeof text, "flags==%16lx", flags);
    traceJMSData(prefix, component, function, text);
}

}  // extern "C"
