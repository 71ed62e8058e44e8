// Text and JSON renderings of a summary: tables for a person at a terminal, one JSON object
// for scripts. Times are UTC with six digits of microseconds; durations in milliseconds.
#include "report.h"

#include <cstdarg>
#include <cstdio>

namespace xajms::trace_tool {

namespace {

__attribute__((format(printf, 1, 2))) std::string fmt(const char *format, ...) {
    char out[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(out, sizeof out, format, args);
    va_end(args);
    return out;
}

std::string ports(const Call &call) {
    std::string out;
    for (const PortAnswer &p : call.ports) {
        out += (out.empty() ? "  ports " : " ") + std::to_string(p.port) + "=" +
               (p.answer ? std::to_string(*p.answer) : std::string("none"));
    }
    return out;
}

std::string marks(const Call &call) {
    std::string out;
    if (!call.entered) {
        out += "  (no entry line)";
    }
    if (!call.exited) {
        out += "  (no exit line)";
    }
    if (call.xaEntry() && !call.result) {
        out += "  (no result line)";
    }
    if (call.xidFromEnd) {
        out += "  (XID of the following end)";
    }
    return out;
}

// One call on a line: when, which process, what, its result and how long it took.
std::string callLine(const Summary &s, const Call &call) {
    return formatTime(call.start) + "  pid " + s.lanes[call.lane].pid + "  " + call.function +
           "  " + resultName(call) + "  " + milliseconds(call.duration()) + " ms" + ports(call) +
           marks(call);
}

std::string stepLines(const Summary &s, const std::vector<Call> &steps, const char *indent) {
    std::string out;
    for (const Call &step : steps) {
        out += indent + fmt("+%s ms  ", milliseconds(step.start - steps.front().start).c_str()) +
               callLine(s, step) + "\n";
    }
    return out;
}

std::string callJson(const Summary &s, const Call &call) {
    std::string out = "{\"pid\":" + jsonString(s.lanes[call.lane].pid) +
                      ",\"file\":" + jsonString(s.lanes[call.lane].file) +
                      ",\"function\":" + jsonString(call.function) +
                      ",\"start\":" + jsonString(formatTime(call.start)) +
                      ",\"duration_us\":" + std::to_string(call.duration()) +
                      ",\"result\":" + (call.result ? jsonString(codeName(*call.result)) : "null") +
                      ",\"code\":" + (call.result ? std::to_string(*call.result) : "null") +
                      ",\"xid\":" + (call.xid.empty() ? "null" : jsonString(call.xid)) +
                      ",\"entered\":" + (call.entered ? "true" : "false") +
                      ",\"exited\":" + (call.exited ? "true" : "false") +
                      ",\"xid_of_following_end\":" + (call.xidFromEnd ? "true" : "false") +
                      ",\"ports\":[";
    for (std::size_t i = 0; i < call.ports.size(); ++i) {
        out += (i ? "," : "") + std::string("{\"port\":") + std::to_string(call.ports[i].port) +
               ",\"answer\":" +
               (call.ports[i].answer ? std::to_string(*call.ports[i].answer) : "null") + "}";
    }
    return out + "]}";
}

std::string callsJson(const Summary &s, const std::vector<Call> &calls) {
    std::string out = "[";
    for (std::size_t i = 0; i < calls.size(); ++i) {
        out += (i ? "," : "") + callJson(s, calls[i]);
    }
    return out + "]";
}

std::string readingText(const Summary &s) {
    std::string out = fmt(
        "files: %zu, processes: %zu, lines: %llu (malformed %llu, torn %llu, too long %llu",
        s.files.size(), s.lanes.size(), static_cast<unsigned long long>(s.read.lines),
        static_cast<unsigned long long>(s.malformed), static_cast<unsigned long long>(s.read.torn),
        static_cast<unsigned long long>(s.read.tooLong));
    out += s.unreadable
               ? fmt(", unreadable files %llu)\n", static_cast<unsigned long long>(s.unreadable))
               : std::string(")\n");
    if (s.timed) {
        out += "time: " + formatTime(s.first) + " to " + formatTime(s.last) + " UTC\n";
    }
    return out;
}

std::string functionsText(const Summary &s) {
    std::string out = fmt("\n%-44s %8s %8s %11s %11s %11s\n", "calls by entry", "count", "unpaired",
                          "p50 ms", "p99 ms", "max ms");
    for (const auto &[name, f] : s.functions) {
        out += fmt("%-44s %8llu %8llu %11s %11s %11s\n", name.c_str(),
                   static_cast<unsigned long long>(f.calls),
                   static_cast<unsigned long long>(f.unpaired),
                   milliseconds(f.durations.quantile(0.5)).c_str(),
                   milliseconds(f.durations.quantile(0.99)).c_str(),
                   milliseconds(f.durations.max()).c_str());
    }
    if (s.functionsDropped) {
        out += fmt("(%llu calls of further functions not counted)\n",
                   static_cast<unsigned long long>(s.functionsDropped));
    }
    return out;
}

}  // namespace

std::string jsonString(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20 || byte >= 0x7f || c == '<' || c == '>' || c == '&') {
            out += fmt("\\u%04x", byte);  // also keeps the text inert inside a page
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string milliseconds(std::int64_t micros) {
    return fmt("%lld.%03lld", static_cast<long long>(micros / 1000),
               static_cast<long long>(micros % 1000));
}

std::string resultName(const Call &call) {
    return call.result ? codeName(*call.result) : "-";
}

std::string summaryText(const Summary &s) {
    std::string out = readingText(s);
    out += fmt("calls: %llu, transactions: %zu\n", static_cast<unsigned long long>(s.calls),
               s.transactions.size());
    out += functionsText(s);
    out += "\nresults by code\n";
    for (const auto &[code, count] : s.results) {
        out += fmt("%-16s %8llu\n", codeName(code).c_str(), static_cast<unsigned long long>(count));
    }
    out += "\nslowest calls\n";
    for (const Call &call : s.slowest) {
        out += callLine(s, call) + (call.xid.empty() ? "" : "  xid " + call.xid) + "\n";
    }
    out += fmt("\ncalls that did not return XA_OK: %llu\n",
               static_cast<unsigned long long>(s.failuresTotal()));
    for (const Call &call : s.failures) {
        out += callLine(s, call) + "\n";
        if (!call.xid.empty()) {
            out += "  transaction " + call.xid + "\n" + stepLines(s, s.story(call.xid), "    ");
        }
    }
    if (s.failuresDropped) {
        out += fmt("(%llu more not listed)\n", static_cast<unsigned long long>(s.failuresDropped));
    }
    return out;
}

std::string summaryJson(const Summary &s) {
    std::string out = "{\"files\":[";
    for (std::size_t i = 0; i < s.files.size(); ++i) {
        out += (i ? "," : "") + jsonString(s.files[i]);
    }
    out += fmt(
        "],\"lines\":%llu,\"malformed\":%llu,\"torn\":%llu,\"too_long\":%llu,"
        "\"unreadable\":%llu,\"calls\":%llu,",
        static_cast<unsigned long long>(s.read.lines), static_cast<unsigned long long>(s.malformed),
        static_cast<unsigned long long>(s.read.torn),
        static_cast<unsigned long long>(s.read.tooLong),
        static_cast<unsigned long long>(s.unreadable), static_cast<unsigned long long>(s.calls));
    out += "\"first\":" + jsonString(formatTime(s.first)) +
           ",\"last\":" + jsonString(formatTime(s.last)) + ",\"processes\":[";
    for (std::size_t i = 0; i < s.lanes.size(); ++i) {
        out += (i ? "," : "") + std::string("{\"pid\":") + jsonString(s.lanes[i].pid) +
               ",\"file\":" + jsonString(s.lanes[i].file) +
               ",\"calls\":" + std::to_string(s.lanes[i].calls) + "}";
    }
    out += "],\"functions\":[";
    bool first = true;
    for (const auto &[name, f] : s.functions) {
        out += (first ? "" : ",") + std::string("{\"function\":") + jsonString(name) +
               fmt(",\"count\":%llu,\"unpaired\":%llu,\"p50_us\":%lld,\"p99_us\":%lld,"
                   "\"max_us\":%lld}",
                   static_cast<unsigned long long>(f.calls),
                   static_cast<unsigned long long>(f.unpaired),
                   static_cast<long long>(f.durations.quantile(0.5)),
                   static_cast<long long>(f.durations.quantile(0.99)),
                   static_cast<long long>(f.durations.max()));
        first = false;
    }
    out += "],\"results\":[";
    first = true;
    for (const auto &[code, count] : s.results) {
        out += (first ? "" : ",") + fmt("{\"code\":%d,\"name\":", code) +
               jsonString(codeName(code)) +
               fmt(",\"count\":%llu}", static_cast<unsigned long long>(count));
        first = false;
    }
    out += "],\"slowest\":" + callsJson(s, s.slowest) + ",\"failures\":[";
    for (std::size_t i = 0; i < s.failures.size(); ++i) {
        std::string call = callJson(s, s.failures[i]);
        call.pop_back();
        out += (i ? "," : "") + call +
               ",\"transaction\":" + callsJson(s, s.story(s.failures[i].xid)) + "}";
    }
    out += fmt("],\"failures_not_listed\":%llu,\"transactions\":%zu}\n",
               static_cast<unsigned long long>(s.failuresDropped), s.transactions.size());
    return out;
}

std::string storyText(const Summary &s, const std::string &xid) {
    const std::vector<Call> steps = s.story(xid);
    if (steps.empty()) {
        return readingText(s) + "transaction " + xid + ": not in the trace\n";
    }
    std::size_t processes = 0;
    std::vector<bool> seen(s.lanes.size());
    for (const Call &step : steps) {
        processes += seen[step.lane] ? 0 : 1;
        seen[step.lane] = true;
    }
    return readingText(s) +
           fmt("transaction %s: %zu step%s in %zu process%s, %s ms from the first entry to "
               "the last exit\n",
               xid.c_str(), steps.size(), steps.size() == 1 ? "" : "s", processes,
               processes == 1 ? "" : "es",
               milliseconds(steps.back().end - steps.front().start).c_str()) +
           stepLines(s, steps, "  ");
}

std::string storyJson(const Summary &s, const std::string &xid) {
    const std::vector<Call> steps = s.story(xid);
    return "{\"xid\":" + jsonString(xid) + ",\"found\":" + (steps.empty() ? "false" : "true") +
           ",\"steps\":" + callsJson(s, steps) + "}\n";
}

}  // namespace xajms::trace_tool
