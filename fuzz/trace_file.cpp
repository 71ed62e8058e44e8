// Trace file contents of any kind for xajms-trace: every line through the parser and the
// pairing of one process's calls, then the summary, a story, the JSON and the page built
// from them. Nothing may read out of bounds, and the counters must add up.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "report.h"
#include "summary.h"
#include "timeline.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace xajms::trace_tool;
    Summary summary(Limits{.functions = 8, .slowest = 3, .failures = 4, .transactions = 4,
                           .stepsPerTransaction = 4, .timeline = 64});
    summary.keepTimeline = true;
    FileReader reader(summary, "fuzz.trc");
    std::string_view text(reinterpret_cast<const char *>(data), size);
    std::uint64_t lines = 0;
    while (!text.empty()) {
        const std::size_t newline = text.find('\n');
        reader.line(text.substr(0, newline));
        ++lines;
        text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);
    }
    reader.finish();
    std::uint64_t counted = summary.functionsDropped;
    for (const auto &[name, stats] : summary.functions) {
        counted += stats.calls;
    }
    if (summary.malformed > lines || counted != summary.calls ||
        summary.timeline.size() + summary.timelineDropped != summary.calls) {
        std::fprintf(stderr, "fuzz: the counters do not add up\n");
        std::abort();
    }
    const std::string xid = summary.failures.empty() ? "1:g:b" : summary.failures[0].xid;
    const std::size_t total = summaryText(summary).size() + summaryJson(summary).size() +
                              storyText(summary, xid).size() + storyJson(summary, xid).size() +
                              timelinePage(summary).size();
    return total == 0 ? -1 : 0;
}
