// Running the verbs of the command line against a switch record: each call timed, printed
// as one line, and checked against what was expected of it.
#pragma once

#include <xajms/xa.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "options.h"

namespace xajms::drive {

// Text as the tool shows it: printable ASCII as it is, a backslash and a quote escaped, any
// other byte as \xNN.
std::string printable(std::string_view text);

// The name of an entry of the record that one of the calls needs but that is null; empty
// when every entry needed is there.
std::string missingEntry(const xa_switch_t &record, const Options &options);

// Runs the calls `repeat` times on each of `threads` threads, writing one line per call to
// out. Returns the number of calls that did not return what was expected.
long runCalls(const xa_switch_t &record, const Options &options, std::FILE *out);

}  // namespace xajms::drive
