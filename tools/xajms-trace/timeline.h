// The timeline page: one self-contained HTML file, no network and no external script, with
// one lane per process, each call a bar from its entry to its exit coloured by its result,
// and the transactions selectable.
#pragma once

#include <string>

#include "summary.h"

namespace xajms::trace_tool {

// The page for the calls the summary kept for the timeline.
std::string timelinePage(const Summary &summary);

}  // namespace xajms::trace_tool
