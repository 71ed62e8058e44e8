// The connect counter (this executable's connect stands in front of the C library's, so the
// library's connects pass through it) and the strace runs of a child copy of the benchmark.
#include "syscalls.h"

#include <dlfcn.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <vector>

#include "listener.h"
#include "workloads.h"

extern char **environ;

namespace {

std::atomic<std::uint64_t> connects{0};

using ConnectFn = int (*)(int, const sockaddr *, socklen_t);

constexpr int kWarmUp = 10;

}  // namespace

extern "C" int connect(int fd, const sockaddr *address, socklen_t length) {
    static const auto real = reinterpret_cast<ConnectFn>(dlsym(RTLD_NEXT, "connect"));
    connects.fetch_add(1, std::memory_order_relaxed);
    return real(fd, address, length);
}

namespace xajms::bench {

std::uint64_t connectsSoFar() {
    return connects.load(std::memory_order_relaxed);
}

namespace {

// Spawns the command and waits for it. Returns its exit status, or -1.
int runAndWait(std::vector<std::string> args) {
    std::vector<char *> argv;
    for (std::string &a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        return -1;
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

std::string selfPath() {
    char path[4096];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    return n > 0 ? std::string(path, static_cast<std::size_t>(n)) : std::string();
}

}  // namespace

bool straceAvailable() {
    return runAndWait({"strace", "-o", "/dev/null", "true"}) == 0;
}

std::optional<SyscallCounts> countSyscalls(const std::string &mode, int port, int ops) {
    char summary[] = "/tmp/xajms-bench-strace-XXXXXX";
    const int fd = mkstemp(summary);
    if (fd < 0) {
        return std::nullopt;
    }
    close(fd);
    const int status =
        runAndWait({"strace", "-f", "-c", "-U", "name,calls", "-o", summary, selfPath(),
                    "--syscall-child", mode, std::to_string(port), std::to_string(ops)});
    std::ifstream in(summary);
    std::stringstream text;
    text << in.rdbuf();
    unlink(summary);
    if (status != 0) {
        return std::nullopt;
    }
    return parseStraceSummary(text.str());
}

int runSyscallChild(const std::string &mode, int port, int ops) {
    bool ok = true;
    const int n = kRecoveredXids;
    auto repeat = [&](auto &&op) {
        for (int i = 0; i < kWarmUp + ops; ++i) {
            ok = op() && ok;
        }
    };
    if (mode == "commit") {
        XID xid = commitXid();
        repeat([&] { return libraryCommit(xid); });
    } else if (mode == "raw") {
        RawSocket socket(port);
        const auto request = commitRequest(commitXid());
        repeat([&] { return rawRoundTrip(socket.fd(), request); });
    } else if (mode == "recover") {
        std::vector<XID> xids(static_cast<std::size_t>(n));
        repeat([&] { return libraryRecover(xids, n); });
    } else if (mode == "rawrecover") {
        RawSocket socket(port);
        const auto request = recoverRequest();
        std::vector<unsigned char> reply(recoverReplySize(n));
        repeat([&] { return rawRecover(socket.fd(), request, reply, reply.size()); });
    } else {
        return 2;
    }
    return ok ? 0 : 1;
}

}  // namespace xajms::bench
