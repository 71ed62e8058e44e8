// Taking trace lines apart: the fixed columns, the indentation and the three line shapes,
// and the names of the XA codes in "Return code = ..." lines.
#include "trace_line.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <utility>

namespace xajms::trace_tool {

namespace {

// Blanks between the pid and the brace of an entry or exit line: separator, six-blank field,
// separator, indentation, blank. A data line has three blanks before its component instead of
// one, and a result line (component and function each one blank) eight.
constexpr int kBeforeBrace = 9;
constexpr int kBeforeComponent = 11;
constexpr int kBeforeResult = 17;
constexpr std::string_view kResult = "Return code = ";
constexpr int kMaxPidDigits = 7;

constexpr std::array<std::pair<int, std::string_view>, 24> kCodeNames = {{
    {-9, "XAER_OUTSIDE"},   {-8, "XAER_DUPID"},     {-7, "XAER_RMFAIL"},    {-6, "XAER_PROTO"},
    {-5, "XAER_INVAL"},     {-4, "XAER_NOTA"},      {-3, "XAER_RMERR"},     {-2, "XAER_ASYNC"},
    {0, "XA_OK"},           {3, "XA_RDONLY"},       {4, "XA_RETRY"},        {5, "XA_HEURMIX"},
    {6, "XA_HEURRB"},       {7, "XA_HEURCOM"},      {8, "XA_HEURHAZ"},      {9, "XA_NOMIGRATE"},
    {100, "XA_RBROLLBACK"}, {101, "XA_RBCOMMFAIL"}, {102, "XA_RBDEADLOCK"}, {103, "XA_RBINTEGRITY"},
    {104, "XA_RBOTHER"},    {105, "XA_RBPROTO"},    {106, "XA_RBTIMEOUT"},  {107, "XA_RBTRANSIENT"},
}};

// Misspelled keys that the library writes for one function under another name.
constexpr std::array<std::pair<std::string_view, std::string_view>, 2> kMisspellings = {{
    {"initializeconnectionpoolock", "initializeconnectionpoollock"},
    {"xa_rollack", "xa_rollback"},
}};

// Reads a run of exactly `width` digits (any width from 1 when width is 0) at text[at].
std::optional<int> digits(std::string_view text, std::size_t &at, std::size_t minWidth,
                          std::size_t maxWidth) {
    std::size_t end = at;
    while (end < text.size() && end - at < maxWidth &&
           std::isdigit(static_cast<unsigned char>(text[end]))) {
        ++end;
    }
    int value = 0;
    if (end - at < minWidth ||
        std::from_chars(text.data() + at, text.data() + end, value).ec != std::errc()) {
        return std::nullopt;
    }
    at = end;
    return value;
}

bool expect(std::string_view text, std::size_t &at, char c) {
    if (at >= text.size() || text[at] != c) {
        return false;
    }
    ++at;
    return true;
}

// Days from 1970-01-01 to the civil date (proleptic Gregorian calendar).
std::int64_t daysFromCivil(std::int64_t y, int m, int d) {
    y -= m <= 2 ? 1 : 0;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const std::int64_t yoe = y - era * 400;
    const std::int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

// "YYYY-MM-DD HH:MM:SS.F " with the fraction the microsecond count in 1 to 6 digits; on
// success `at` is past the trailing blank.
std::optional<std::int64_t> parseStamp(std::string_view text, std::size_t &at) {
    const auto year = digits(text, at, 4, 5);
    const auto month = year && expect(text, at, '-') ? digits(text, at, 2, 2) : std::nullopt;
    const auto day = month && expect(text, at, '-') ? digits(text, at, 2, 2) : std::nullopt;
    const auto hour = day && expect(text, at, ' ') ? digits(text, at, 2, 2) : std::nullopt;
    const auto minute = hour && expect(text, at, ':') ? digits(text, at, 2, 2) : std::nullopt;
    const auto second = minute && expect(text, at, ':') ? digits(text, at, 2, 2) : std::nullopt;
    const auto micros = second && expect(text, at, '.') ? digits(text, at, 1, 6) : std::nullopt;
    if (!micros || !expect(text, at, ' ') || *month < 1 || *month > 12 || *day < 1 || *day > 31 ||
        *hour > 23 || *minute > 59 || *second > 60) {
        return std::nullopt;
    }
    const std::int64_t days = daysFromCivil(*year, *month, *day);
    return ((days * 24 + *hour) * 60 + *minute) * 60 * 1000000LL + *second * 1000000LL + *micros;
}

// Splits "function   data" (data lines and entry or exit lines with data) or "function "
// (entry and exit lines without data).
void splitFunction(std::string_view rest, TraceLine &line) {
    const std::size_t gap = rest.find("   ");
    if (gap != std::string_view::npos) {
        line.function = rest.substr(0, gap);
        line.data = rest.substr(gap + 3);
    } else {
        line.function = rest.ends_with(' ') ? rest.substr(0, rest.size() - 1) : rest;
    }
}

}  // namespace

std::optional<TraceLine> parseTraceLine(std::string_view text) {
    TraceLine line;
    std::size_t at = 0;
    const std::optional<std::int64_t> micros = parseStamp(text, at);
    if (!micros || !expect(text, at, ' ')) {
        return std::nullopt;
    }
    line.micros = *micros;
    const std::size_t pidStart = at;
    while (at < text.size() && at - pidStart < kMaxPidDigits &&
           std::isdigit(static_cast<unsigned char>(text[at]))) {
        ++at;
    }
    line.pid = text.substr(pidStart, at - pidStart);
    const std::size_t blanksStart = at;
    while (at < text.size() && text[at] == ' ') {
        ++at;
    }
    const int blanks = static_cast<int>(at - blanksStart);
    const std::string_view rest = text.substr(at);
    if (rest.starts_with("{ ") || rest.starts_with("} ")) {
        line.kind = rest[0] == '{' ? LineKind::Entry : LineKind::Exit;
        line.indent = blanks - kBeforeBrace;
        const std::string_view body = rest.substr(2);
        const std::size_t blank = body.find(' ');
        if (blank == std::string_view::npos || blank == 0) {
            return std::nullopt;
        }
        line.component = body.substr(0, blank);
        splitFunction(body.substr(blank + 1), line);
    } else if (rest.starts_with(kResult) && blanks >= kBeforeResult) {
        line.kind = LineKind::Result;
        line.indent = blanks - kBeforeResult;
        line.data = rest.substr(kResult.size());
    } else {
        line.kind = LineKind::Data;
        line.indent = blanks - kBeforeComponent;
        const std::size_t blank = rest.find(' ');
        if (blank == std::string_view::npos || blank == 0) {
            return std::nullopt;
        }
        line.component = rest.substr(0, blank);
        splitFunction(rest.substr(blank + 1), line);
    }
    if (line.indent < 0 || line.indent > kMaxIndent ||
        (line.kind != LineKind::Result && line.function.empty())) {
        return std::nullopt;
    }
    return line;
}

std::optional<int> resultCode(std::string_view text) {
    while (!text.empty() && text.front() == ' ') {
        text.remove_prefix(1);
    }
    while (!text.empty() && text.back() == ' ') {
        text.remove_suffix(1);
    }
    for (const auto &[code, name] : kCodeNames) {
        if (text == name) {
            return code;
        }
    }
    int value = 0;
    const char *end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || ec != std::errc() || ptr != end) {
        return std::nullopt;
    }
    return value;
}

std::string codeName(int code) {
    for (const auto &[value, name] : kCodeNames) {
        if (value == code) {
            return std::string(name);
        }
    }
    return std::to_string(code);
}

std::string formatTime(std::int64_t micros) {
    std::int64_t seconds = micros / 1000000;
    std::int64_t fraction = micros % 1000000;
    if (fraction < 0) {
        fraction += 1000000;
        --seconds;
    }
    std::int64_t days = seconds / 86400;
    std::int64_t rest = seconds % 86400;
    if (rest < 0) {
        rest += 86400;
        --days;
    }
    // Civil date from days since 1970-01-01 (the inverse of daysFromCivil).
    const std::int64_t z = days + 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const std::int64_t doe = z - era * 146097;
    const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const std::int64_t mp = (5 * doy + 2) / 153;
    const std::int64_t day = doy - (153 * mp + 2) / 5 + 1;
    const std::int64_t month = mp < 10 ? mp + 3 : mp - 9;
    const std::int64_t year = yoe + era * 400 + (month <= 2 ? 1 : 0);
    char out[64];
    std::snprintf(out, sizeof out, "%04lld-%02lld-%02lld %02lld:%02lld:%02lld.%06lld",
                  static_cast<long long>(year), static_cast<long long>(month),
                  static_cast<long long>(day), static_cast<long long>(rest / 3600),
                  static_cast<long long>(rest / 60 % 60), static_cast<long long>(rest % 60),
                  static_cast<long long>(fraction));
    return out;
}

std::string functionKey(std::string_view literal) {
    const std::size_t blank = literal.find(' ');
    std::string key(literal.substr(0, blank));
    std::transform(key.begin(), key.end(), key.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (const std::string_view ending : {"_jms", "_jmd", "_entry"}) {
        if (key.ends_with(ending)) {
            key.resize(key.size() - ending.size());
        }
    }
    for (const auto &[wrong, right] : kMisspellings) {
        if (key == wrong) {
            key = right;
        }
    }
    return key;
}

}  // namespace xajms::trace_tool
