// The summary and one transaction's story, as text for a person or as JSON for scripts.
#pragma once

#include <string>

#include "summary.h"

namespace xajms::trace_tool {

std::string summaryText(const Summary &summary);
std::string summaryJson(const Summary &summary);
std::string storyText(const Summary &summary, const std::string &xid);
std::string storyJson(const Summary &summary, const std::string &xid);

// Helpers shared with the page.
std::string jsonString(std::string_view text);
std::string milliseconds(std::int64_t micros);  // "1.200" for 1200 µs
std::string resultName(const Call &call);       // the code's name, or "-" without a result

}  // namespace xajms::trace_tool
