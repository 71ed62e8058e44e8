// Formatted trace lines: the text is built with a bounded format into a 512-byte buffer,
// and only while the prefix traces, so that a switched-off trace costs one comparison.
#include "trace/trace.h"

#include <cstdarg>

namespace xajms::trace {

namespace {

using Writer = void (*)(const char *, const char *, const char *, const char *);

__attribute__((format(printf, 5, 0))) void write(Writer writer, const char *prefix,
                                                 const char *component, const char *function,
                                                 const char *format, va_list args) {
    char text[kTextSize];
    std::vsnprintf(text, sizeof text, format, args);
    writer(prefix, component, function, text);
}

}  // namespace

#define XAJMS_FORMATTED(name, writer)                                                              \
    void name(const char *prefix, const char *component, const char *function, const char *format, \
              ...) {                                                                               \
        if (!on(prefix)) {                                                                         \
            return;                                                                                \
        }                                                                                          \
        va_list args;                                                                              \
        va_start(args, format);                                                                    \
        write(writer, prefix, component, function, format, args);                                  \
        va_end(args);                                                                              \
    }

XAJMS_FORMATTED(data, traceJMSData)
XAJMS_FORMATTED(entryData, traceJMSEntryData)
XAJMS_FORMATTED(exitData, traceJMSExitData)

#undef XAJMS_FORMATTED

}  // namespace xajms::trace
