// Starting, reading and reaping the built tools from a test. Children are started with
// posix_spawn (safe in a process with threads); every wait is bounded by one deadline.
#include "support/listener_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <utility>

extern char **environ;

// Provided by the sanitizers' run-time only.
extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));

namespace xajms::test {
namespace {

constexpr long long kStartLimitMs = 10000;  // for the "port=N" line, and for a stop
constexpr long long kRunLimitMs = 20000;    // for a tool run to its end

long long nowMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits until fd is readable or at its end; false when the deadline passed first.
bool readable(int fd, long long deadline) {
    for (long long left = deadline - nowMs(); left >= 0; left = deadline - nowMs()) {
        pollfd p{fd, POLLIN, 0};
        const timespec ts{static_cast<time_t>(left / 1000),
                          static_cast<long>(left % 1000) * 1000000};
        const int n = ppoll(&p, 1, &ts, nullptr);
        if (n > 0 || (n < 0 && errno != EINTR)) {
            return n > 0;
        }
    }
    return false;
}

// Appends what one read returns; false at the end of the output or on an error.
bool readMore(int fd, std::string &to) {
    std::array<char, 4096> chunk;
    const ssize_t n = TEMP_FAILURE_RETRY(read(fd, chunk.data(), chunk.size()));
    to.append(chunk.data(), n > 0 ? static_cast<size_t>(n) : 0);
    return n > 0;
}

// Reads fd to its end, which comes when the child has exited; false when the deadline passed
// first. The reading also unblocks a child that is writing into a full pipe.
bool drain(int fd, std::string &to, long long deadline) {
    while (readable(fd, deadline)) {
        if (!readMore(fd, to)) {
            return true;
        }
    }
    return false;
}

// Listeners not yet reaped. A sanitizer that ends the test at its first report kills them
// first: a listener left behind would keep ctest's output pipe open, and ctest waits for it.
std::array<std::atomic<pid_t>, 64> running{};

void killRunning() {
    for (std::atomic<pid_t> &pid : running) {
        if (const pid_t p = pid.exchange(0); p > 0) {
            kill(p, SIGKILL);
        }
    }
}

void track(pid_t pid) {
    static const bool registered = __sanitizer_set_death_callback != nullptr &&
                                   (__sanitizer_set_death_callback(killRunning), true);
    for (std::atomic<pid_t> &slot : running) {
        pid_t empty = 0;
        if (registered && slot.compare_exchange_strong(empty, pid)) {
            return;
        }
    }
}

int reap(pid_t pid) {
    for (std::atomic<pid_t> &slot : running) {
        pid_t tracked = pid;
        slot.compare_exchange_strong(tracked, 0);
    }
    int status = 0;
    if (TEMP_FAILURE_RETRY(waitpid(pid, &status, 0)) < 0) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Starts the program with its standard output on a pipe read from `out` and its standard
// error on `err`; returns its pid, or -1.
pid_t spawn(const std::string &path, const std::vector<std::string> &args, int &out, int err) {
    std::vector<char *> argv{const_cast<char *>(path.c_str())};
    for (const std::string &a : args) {
        argv.push_back(const_cast<char *>(a.c_str()));
    }
    argv.push_back(nullptr);
    int p[2] = {-1, -1};
    if (pipe2(p, O_CLOEXEC) != 0) {
        return -1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, p[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err, 2);
    pid_t pid = -1;
    const int failed = posix_spawn(&pid, path.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(p[1]);
    out = p[0];
    return failed == 0 ? pid : -1;
}

}  // namespace

ToolRun runTool(const std::string &path, const std::vector<std::string> &args) {
    ToolRun run;
    int out = -1;
    const int err = memfd_create("stderr", MFD_CLOEXEC);  // read once the tool has ended
    const pid_t pid = spawn(path, args, out, err);
    const bool ended = pid > 0 && drain(out, run.out, nowMs() + kRunLimitMs);
    if (pid > 0 && !ended) {
        kill(pid, SIGKILL);
    }
    const int status = pid > 0 ? reap(pid) : -1;
    lseek(err, 0, SEEK_SET);
    while (readMore(err, run.err)) {
    }
    close(out);
    close(err);
    run.status = ended ? status : -1;
    return run;
}

ListenerProcess::ListenerProcess(const std::vector<std::string> &args) {
    pid_ = spawn(listenerPath(), args, out_, STDERR_FILENO);
    if (pid_ > 0) {
        track(pid_);
    }
    const std::optional<std::string> first = pid_ > 0 ? nextLine(kStartLimitMs) : std::nullopt;
    char after = 0;  // nothing may follow the number
    if (first && std::sscanf(first->c_str(), "port=%d%c", &port_, &after) != 1) {
        port_ = 0;
    }
}

ListenerProcess::~ListenerProcess() {
    stop();
    close(out_);
}

std::optional<std::string> ListenerProcess::nextLine(int timeoutMs) {
    const long long deadline = nowMs() + timeoutMs;
    for (;;) {
        const size_t newline = buffered_.find('\n');
        if (newline != std::string::npos) {
            std::string line = buffered_.substr(0, newline);
            buffered_.erase(0, newline + 1);
            return line;
        }
        if (out_ < 0 || !readable(out_, deadline) || !readMore(out_, buffered_)) {
            return std::nullopt;
        }
    }
}

int ListenerProcess::stop(int sig) {
    if (pid_ > 0) {
        kill(pid_, sig);
    }
    const std::optional<int> status = waitForExit(kStartLimitMs);
    if (status || pid_ <= 0) {
        return status.value_or(-1);
    }
    kill(pid_, SIGKILL);
    return reap(std::exchange(pid_, -1));
}

std::optional<int> ListenerProcess::waitForExit(int timeoutMs) {
    if (pid_ <= 0 || !drain(out_, buffered_, nowMs() + timeoutMs)) {
        return std::nullopt;
    }
    return reap(std::exchange(pid_, -1));
}

}  // namespace xajms::test
