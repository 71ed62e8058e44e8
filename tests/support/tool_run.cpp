// Running a built tool to its end: posix_spawn (safe in a process with threads), both
// output pipes drained with ppoll and read (never the faked poll and recv), bounded by one
// deadline, then reaped.
#include "support/tool_run.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>

extern char **environ;

namespace xajms::test {
namespace {

constexpr long long kRunLimitMs = 20000;

long long nowMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Appends what one read returns; false at the end of the output or on an error.
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

// Reads both pipes until both end or the deadline passes; true when both ended.
bool drain(int out, int err, ToolRun &run) {
    const long long deadline = nowMs() + kRunLimitMs;
    bool outOpen = true;
    bool errOpen = true;
    while (outOpen || errOpen) {
        const long long left = deadline - nowMs();
        if (left < 0) {
            return false;
        }
        pollfd p[2] = {{outOpen ? out : -1, POLLIN, 0}, {errOpen ? err : -1, POLLIN, 0}};
        const timespec ts{static_cast<time_t>(left / 1000),
                          static_cast<long>(left % 1000) * 1000000};
        if (ppoll(p, 2, &ts, nullptr) < 0 && errno != EINTR) {
            return false;
        }
        if (p[0].revents != 0) {
            outOpen = readMore(out, run.out);
        }
        if (p[1].revents != 0) {
            errOpen = readMore(err, run.err);
        }
    }
    return true;
}

}  // namespace

std::string drivePath() {
#ifdef XAJMS_DRIVE_PATH
    return XAJMS_DRIVE_PATH;
#else
    return {};
#endif
}

std::string registryToolPath() {
#ifdef XAJMS_REGISTRY_PATH
    return XAJMS_REGISTRY_PATH;
#else
    return {};
#endif
}

std::string scriptedSwitchPath() {
    return XAJMS_SCRIPTED_SWITCH_PATH;
}

ToolRun runTool(const std::string &path, const std::vector<std::string> &args,
                const std::vector<std::string> &env) {
    std::vector<std::string> all{path};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &a : all) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    // The extra entries come first: getenv returns the first match.
    std::vector<std::string> extra = env;
    std::vector<char *> envp;
    for (std::string &e : extra) {
        envp.push_back(e.data());
    }
    for (char **e = environ; *e != nullptr; ++e) {
        envp.push_back(*e);
    }
    envp.push_back(nullptr);

    ToolRun run;
    int o[2] = {-1, -1};
    int e[2] = {-1, -1};
    if (pipe2(o, O_CLOEXEC) != 0 || pipe2(e, O_CLOEXEC) != 0) {
        return run;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, o[1], 1);
    posix_spawn_file_actions_adddup2(&actions, e[1], 2);
    pid_t pid = -1;
    const int failed = posix_spawn(&pid, path.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(o[1]);
    close(e[1]);
    const bool ended = failed == 0 && drain(o[0], e[0], run);
    close(o[0]);
    close(e[0]);
    if (failed != 0) {
        return run;
    }
    if (!ended) {
        kill(pid, SIGKILL);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (ended && WIFEXITED(status)) {
        run.status = WEXITSTATUS(status);
    } else if (ended && WIFSIGNALED(status)) {
        run.status = 128 + WTERMSIG(status);
    }
    return run;
}

std::vector<std::string> lines(const std::string &text) {
    std::vector<std::string> all;
    std::size_t begin = 0;
    while (begin < text.size()) {
        const std::size_t end = text.find('\n', begin);
        if (end == std::string::npos) {
            all.push_back(text.substr(begin));
            break;
        }
        all.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return all;
}

}  // namespace xajms::test
