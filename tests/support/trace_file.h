// Trace files read back as whole lines, and the fixed columns of a trace written with the
// clock and the process id faked.
#pragma once

#include <xajms/xajms.h>

#include <sys/types.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "support/fakes.h"

namespace xajms::test {

inline constexpr pid_t kTracePid = 12345;

// Arms the fake clock at 2026-11-16 07:50:58 and 4017 microseconds, and the fake pid 12345.
inline void freezeTraceColumns() {
    armClock(1794815458, 4017);
    armPid(kTracePid);
}

// The lines of a text file without their newlines; none when it does not exist.
inline std::vector<std::string> fileLines(const std::string &path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The lines of the trace file prefix + pid + ".trc".
inline std::vector<std::string> traceLines(const std::string &prefix, pid_t pid = kTracePid) {
    return fileLines(prefix + std::to_string(pid) + ".trc");
}

// One line under freezeTraceColumns(): stamp, pid, the six-blank field, `pad` blanks, `rest`.
inline std::string golden(int pad, std::string_view rest) {
    return "2026-11-16 07:50:58.4017  12345        " + std::string(static_cast<size_t>(pad), ' ') +
           " " + std::string(rest);
}

// A fresh directory under /tmp, removed with its files when the object goes.
class TempDir {
  public:
    TempDir() {
        char pattern[] = "/tmp/xajms-test-XXXXXX";
        path_ = mkdtemp(pattern) != nullptr ? pattern : "/tmp";
    }
    ~TempDir() {
        std::error_code ignored;
        if (path_ != "/tmp") {
            std::filesystem::remove_all(path_, ignored);
        }
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

// Switches the entry layer's trace on with the prefix (through XAJMS_TRACEFILE and the broker
// recovery hook, whose effects it undoes) and empties the file, so a test sees its own lines.
inline void enableVarnelinkTrace(const std::string &prefix) {
    setenv("XAJMS_TRACEFILE", prefix.c_str(), 1);
    const int depth = iIndent;
    const int recoveries = flRecoveryInit_jms;
    ZJavaInitRecoverJMS();
    iIndent = depth;
    flRecoveryInit_jms = recoveries;
    std::filesystem::remove(prefix + std::to_string(getpid()) + ".trc");
}

}  // namespace xajms::test
