// The execution group's error lines: one line each, to standard error and appended to the
// log file that the open string names. Lines are written whole, so that lines of several
// threads do not interleave.
#include "eg.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

namespace xajms::eg {

namespace {

std::mutex logMutex;
std::string logPath;

void writeAll(int fd, const char *text, std::size_t length) {
    while (length > 0) {
        const ssize_t n = ::write(fd, text, length);
        if (n <= 0) {
            return;
        }
        text += n;
        length -= static_cast<std::size_t>(n);
    }
}

}  // namespace

void setLogPath(const std::string &path) {
    const std::lock_guard<std::mutex> lock(logMutex);
    logPath = path;
}

void report(const char *format, ...) {
    char line[1024];
    const int head = std::snprintf(line, sizeof line, "xajms-eg[%d]: ", static_cast<int>(getpid()));
    va_list args;
    va_start(args, format);
    std::vsnprintf(line + head, sizeof line - static_cast<std::size_t>(head) - 1, format, args);
    va_end(args);
    std::size_t length = std::char_traits<char>::length(line);
    line[length++] = '\n';
    writeAll(STDERR_FILENO, line, length);
    const std::lock_guard<std::mutex> lock(logMutex);
    if (!logPath.empty()) {
        const int fd = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd >= 0) {
            writeAll(fd, line, length);
            ::close(fd);
        }
    }
}

}  // namespace xajms::eg
