// Trace-file reading and the golden-line helper of the tests.
#include "support/trace_file.h"

#include <xajms/xajms.h>

#include <unistd.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "support/fakes.h"

namespace xajms::test {

void freezeTraceColumns() {
    armClock(1794815458, 4017);  // 2026-11-16 07:50:58 UTC
    armPid(kTracePid);
}

std::vector<std::string> fileLines(const std::string &path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> traceLines(const std::string &prefix, pid_t pid) {
    return fileLines(prefix + std::to_string(pid) + ".trc");
}

std::string golden(int pad, std::string_view rest) {
    std::string line(kTraceStamp);
    line += " " + std::to_string(kTracePid) + " " + "      " + " ";
    line += std::string(static_cast<size_t>(pad), ' ') + " ";
    line += rest;
    return line;
}

TempDir::TempDir() {
    char pattern[] = "/tmp/xajms-test-XXXXXX";
    const char *made = mkdtemp(pattern);
    path_ = made != nullptr ? made : "/tmp";
}

TempDir::~TempDir() {
    if (path_ != "/tmp") {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
}

void enableVarnelinkTrace(const std::string &prefix) {
    setenv("XAJMS_TRACEFILE", prefix.c_str(), 1);
    const int depth = iIndent;
    const int recoveries = flRecoveryInit_jms;
    ZJavaInitRecoverJMS();
    iIndent = depth;
    flRecoveryInit_jms = recoveries;
    std::filesystem::remove(prefix + std::to_string(getpid()) + ".trc");
}

}  // namespace xajms::test
