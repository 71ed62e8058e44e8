// Reading trace files back as whole lines, and the fixed columns of a trace written with the
// clock and the process id faked.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

namespace xajms::test {

// The fake process id and time stamp that freezeTraceColumns() arms.
inline constexpr pid_t kTracePid = 12345;
inline constexpr std::string_view kTraceStamp = "2026-11-16 07:50:58.4017 ";

// Arms the fake clock at 2026-11-16 07:50:58 and 4017 microseconds, and the fake pid 12345.
void freezeTraceColumns();

// The lines of the trace file prefix + pid + ".trc", without their newlines; empty when the
// file does not exist.
std::vector<std::string> traceLines(const std::string &prefix, pid_t pid = kTracePid);

// The lines of any text file, without their newlines; empty when it does not exist.
std::vector<std::string> fileLines(const std::string &path);

// One expected line under freezeTraceColumns(): time stamp, pid, the six-blank field, `pad`
// blanks of indentation, then `rest` (marker, component, function and data as written).
std::string golden(int pad, std::string_view rest);

// A fresh directory under /tmp, removed with its files when the object goes.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

// Switches the entry layer's trace on with the prefix (through XAJMS_TRACEFILE and the
// broker recovery hook, which changes nothing else a test looks at) and empties the file
// again, so that a test sees only its own lines.
void enableVarnelinkTrace(const std::string &prefix);

}  // namespace xajms::test
