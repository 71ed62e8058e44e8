// The host's run: the threads that run units until the messages asked for are moved, the
// source queue is empty or a unit fails, and the progress line of a long run.
#pragma once

#include <string>

#include "unit.h"

namespace xajms::eg_host {

struct RunResult {
    long moved = 0;
    double seconds = 0;
    std::string failure;  // the first failed unit's reason; empty when none failed
};

// Runs at most messages units (-1: until the source queue is empty) on threads threads.
RunResult runUnits(const Host &host, long messages, int threads, bool progress);

}  // namespace xajms::eg_host
