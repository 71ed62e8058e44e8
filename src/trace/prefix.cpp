// The two trace-file prefixes, the exported trace state, and how a prefix is taken from
// the environment. Both prefixes start as "NoTrace": tracing is off until a caller copies
// XAJMS_TRACEFILE in, and no function ever switches it off again.
#include "trace/trace.h"

#include <cstdio>
#include <cstdlib>

extern "C" {
char jmstracefile[512] = "NoTrace";
char sockettraceJMSfile[512] = "NoTrace";
int iIndent = 0;
char vStrTrace_jms[5] = "OFF ";
char vStrTraceFile_jms[512] = "TraceFile";
}

namespace xajms::trace {

void copyFromEnvironment(char *prefix) {
    const char *value = std::getenv(kTraceVariable);
    if (value != nullptr) {
        std::snprintf(prefix, kTextSize, "%.486s", value);
    }
}

}  // namespace xajms::trace
