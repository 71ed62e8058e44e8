// The time stamp and indentation columns of a trace line. Both formats are fixed: the
// fraction is the microsecond count padded to three digits only, and the indentation is
// one blank less than the nesting depth, never more than 19 blanks.
#include "trace/trace.h"

#include <sys/time.h>
#include <time.h>

namespace {

// Two digits: "0%d" for 9 or less, else "%d", into a 3-byte part. Every field of a UTC
// time is below 100; the modulo only tells the compiler so.
void twoDigits(char (&out)[3], int field) {
    const unsigned value = static_cast<unsigned>(field) % 100U;
    if (value <= 9) {
        std::snprintf(out, sizeof out, "0%u", value);
    } else {
        std::snprintf(out, sizeof out, "%u", value);
    }
}

}  // namespace

extern "C" {

// Fills `out` (30 bytes at least) with "YYYY-MM-DD hh:mm:ss.f " in UTC, where f is the
// microseconds zero-padded to three digits. Returns the formatter's result.
int getTimeStamp(char *out) {
    struct timeval now {};
    gettimeofday(&now, nullptr);
    const time_t seconds = now.tv_sec;
    struct tm parts {};
    gmtime_r(&seconds, &parts);

    char year[5];
    char month[3];
    char day[3];
    char hour[3];
    char minute[3];
    char second[3];
    char fraction[7];
    // Years have four digits until 9999; the modulo keeps the part provably in its buffer.
    std::snprintf(year, sizeof year, "%u", static_cast<unsigned>(parts.tm_year + 1900) % 10000U);
    twoDigits(month, parts.tm_mon + 1);
    twoDigits(day, parts.tm_mday);
    twoDigits(hour, parts.tm_hour);
    twoDigits(minute, parts.tm_min);
    twoDigits(second, parts.tm_sec);
    const unsigned micros = static_cast<unsigned>(now.tv_usec) % 1000000U;
    if (micros <= 9) {
        std::snprintf(fraction, sizeof fraction, "00%u", micros);
    } else if (micros <= 99) {
        std::snprintf(fraction, sizeof fraction, "0%u", micros);
    } else {
        std::snprintf(fraction, sizeof fraction, "%u", micros);
    }
    return std::snprintf(out, 30, "%s-%s-%s %s:%s:%s.%s ", year, month, day, hour, minute, second,
                         fraction);
}

// Fills `out` (21 bytes at least) with depth - 1 blanks. A depth above 20 is written back
// as 20 and gives 19 blanks; a depth of 1 or less gives none. Returns the formatter's result.
int indent(char *out) {
    char blanks[21] = {};
    const int depth = iIndent;
    int count = 0;
    if (depth > 20) {
        iIndent = 20;
        count = 19;
    } else if (depth > 1) {
        count = depth - 1;
    }
    std::memset(blanks, ' ', static_cast<size_t>(count));
    return std::snprintf(out, 21, "%s", blanks);
}

}  // extern "C"
