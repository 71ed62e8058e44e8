// The two trace-file prefixes, the exported trace state, and how a prefix is taken from
// the environment. Both prefixes start as "NoTrace": tracing is off until a caller copies
// XAJMS_TRACEFILE in, and no function ever switches it off again.
#include "trace/trace.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" {
char jmstracefile[512] = "NoTrace";
char sockettraceJMSfile[512] = "NoTrace";
int iIndent = 0;
char vStrTrace_jms[5] = "OFF ";
char vStrTraceFile_jms[512] = "TraceFile";
}

namespace xajms::trace {

// Every pool lock copies the socket prefix again while other threads trace through it, so
// the prefix is written only when the variable no longer matches it: an unchanged prefix is
// only ever read, never rewritten under a reader.
void copyFromEnvironment(char *prefix) {
    const char *value = std::getenv(kTraceVariable);
    if (value == nullptr) {
        return;
    }
    char copy[kTextSize];
    std::snprintf(copy, sizeof copy, "%.486s", value);
    if (std::strncmp(copy, prefix, kTextSize) != 0) {
        std::memcpy(prefix, copy, std::strlen(copy) + 1);
    }
}

}  // namespace xajms::trace
