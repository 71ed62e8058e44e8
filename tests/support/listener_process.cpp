// Starting, reading and stopping xajms-listener from a test. Children are started with
// posix_spawn (safe in a process with threads); waits are bounded with ppoll on the pipes.
#include "support/listener_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>

extern char **environ;

namespace xajms::test {
namespace {

constexpr int kStartTimeoutMs = 10000;

long long nowMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits until fd is readable or the deadline passes; true when it is readable (or at EOF).
bool readable(int fd, long long deadline) {
    for (;;) {
        const long long left = deadline - nowMs();
        if (left < 0) {
            return false;
        }
        pollfd p{fd, POLLIN, 0};
        const timespec ts{static_cast<time_t>(left / 1000),
                          static_cast<long>(left % 1000) * 1000000};
        const int n = ppoll(&p, 1, &ts, nullptr);
        if (n > 0) {
            return true;
        }
        if (n < 0 && errno != EINTR) {
            return false;
        }
    }
}

// Appends what one read returns; false at EOF or on an error.
bool readMore(int fd, std::string &to) {
    std::array<char, 4096> chunk;
    ssize_t n = -1;
    do {
        n = read(fd, chunk.data(), chunk.size());
    } while (n < 0 && errno == EINTR);
    if (n <= 0) {
        return false;
    }
    to.append(chunk.data(), static_cast<size_t>(n));
    return true;
}

int exitStatus(int waitStatus) {
    if (WIFEXITED(waitStatus)) {
        return WEXITSTATUS(waitStatus);
    }
    return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : -1;
}

// Starts the listener with stdout (and stderr when err is given) on pipes; returns its pid.
pid_t spawn(const std::vector<std::string> &args, int &out, int *err) {
    std::vector<std::string> all{listenerPath()};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &a : all) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    int o[2] = {-1, -1};
    int e[2] = {-1, -1};
    if (pipe2(o, O_CLOEXEC) != 0 || (err != nullptr && pipe2(e, O_CLOEXEC) != 0)) {
        return -1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, o[1], 1);
    if (err != nullptr) {
        posix_spawn_file_actions_adddup2(&actions, e[1], 2);
    }
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(o[1]);
    out = o[0];
    if (err != nullptr) {
        close(e[1]);
        *err = e[0];
    }
    return pid;
}

}  // namespace

std::string listenerPath() {
#ifdef XAJMS_LISTENER_PATH
    return XAJMS_LISTENER_PATH;
#else
    return {};
#endif
}

ListenerProcess::ListenerProcess(const std::vector<std::string> &args) {
    if (listenerPath().empty()) {
        return;
    }
    pid_ = spawn(args, out_, nullptr);
    if (pid_ < 0) {
        return;
    }
    const std::optional<std::string> first = nextLine(kStartTimeoutMs);
    if (first && first->starts_with("port=")) {
        const char *begin = first->data() + 5;
        const char *end = first->data() + first->size();
        int port = 0;
        const auto [ptr, ec] = std::from_chars(begin, end, port);
        port_ = (ec == std::errc() && ptr == end) ? port : 0;
    }
}

ListenerProcess::~ListenerProcess() {
    stop();
    if (out_ >= 0) {
        close(out_);
    }
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

int ListenerProcess::reap() {
    int status = 0;
    pid_t r = -1;
    do {
        r = waitpid(pid_, &status, 0);
    } while (r < 0 && errno == EINTR);
    pid_ = -1;
    return r < 0 ? -1 : exitStatus(status);
}

// Reads the listener's output into the buffer until it ends (the listener has exited) or
// the deadline passes; true at the end of the output. Reading also unblocks a listener that
// is writing its log into a full pipe.
bool ListenerProcess::drain(long long deadline) {
    while (out_ >= 0 && readable(out_, deadline)) {
        if (!readMore(out_, buffered_)) {
            return true;
        }
    }
    return out_ < 0;
}

int ListenerProcess::stop(int sig) {
    if (pid_ < 0) {
        return -1;
    }
    kill(pid_, sig);
    if (!drain(nowMs() + kStartTimeoutMs)) {
        kill(pid_, SIGKILL);
    }
    return reap();
}

std::optional<int> ListenerProcess::waitForExit(int timeoutMs) {
    if (pid_ < 0 || !drain(nowMs() + timeoutMs)) {
        return std::nullopt;
    }
    return reap();
}

ListenerRun runListener(const std::vector<std::string> &args) {
    ListenerRun run;
    int out = -1;
    int err = -1;
    const pid_t pid = spawn(args, out, &err);
    if (pid < 0) {
        return run;
    }
    const long long deadline = nowMs() + kStartTimeoutMs;
    bool outOpen = true;
    bool errOpen = true;
    while (outOpen || errOpen) {
        const long long left = deadline - nowMs();
        if (left < 0) {
            break;
        }
        pollfd p[2] = {{outOpen ? out : -1, POLLIN, 0}, {errOpen ? err : -1, POLLIN, 0}};
        const timespec ts{static_cast<time_t>(left / 1000),
                          static_cast<long>(left % 1000) * 1000000};
        if (ppoll(p, 2, &ts, nullptr) < 0 && errno != EINTR) {
            break;
        }
        if (p[0].revents != 0) {
            outOpen = readMore(out, run.out);
        }
        if (p[1].revents != 0) {
            errOpen = readMore(err, run.err);
        }
    }
    if (outOpen || errOpen) {
        kill(pid, SIGKILL);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    close(out);
    close(err);
    run.status = (outOpen || errOpen) ? -1 : exitStatus(status);
    return run;
}

}  // namespace xajms::test
