// The interposed C library calls of the test executables and their switches.
#include "support/fakes.h"

#include <fcntl.h>
#include <unistd.h>
#include <atomic>
#include <cstdarg>
#include <mutex>

namespace xajms::test {
namespace {

struct State {
    std::atomic<bool> clockArmed{false};
    std::mutex clockLock;
    timeval now{};
    std::atomic<int> sleeps{0};
    std::atomic<unsigned> slept{0};
    std::atomic<bool> pidArmed{false};
    std::atomic<pid_t> pid{0};
    PollScript poll;
    RecvScript recv;
    DlopenScript dlopen;
    OpenScript open;
    std::atomic<int> polls{0};
    std::atomic<int> recvs{0};
    std::atomic<int> dlopens{0};
    std::atomic<int> opens{0};
    std::atomic<int> failAt{0};  // countdown to the failing allocation; 0 when disarmed
    std::atomic<int> allocations{0};
};

State &state() {
    static State s;
    return s;
}

template <typename Fn>
Fn next(const char *name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void armClock(time_t seconds, suseconds_t micros) {
    std::lock_guard<std::mutex> hold(state().clockLock);
    state().now = timeval{seconds, micros};
    state().clockArmed = true;
}

void disarmClock() {
    state().clockArmed = false;
}

void advanceClock(time_t seconds) {
    std::lock_guard<std::mutex> hold(state().clockLock);
    state().now.tv_sec += seconds;
}

int sleepCalls() {
    return state().sleeps;
}

unsigned sleptSeconds() {
    return state().slept;
}

void resetSleeps() {
    state().sleeps = 0;
    state().slept = 0;
}

void armPid(pid_t pid) {
    state().pid = pid;
    state().pidArmed = true;
}

void disarmPid() {
    state().pidArmed = false;
}

void setPoll(PollScript script) {
    state().poll = std::move(script);
}

void setRecv(RecvScript script) {
    state().recv = std::move(script);
}

void setDlopen(DlopenScript script) {
    state().dlopen = std::move(script);
}

void setOpen(OpenScript script) {
    state().open = std::move(script);
}

void clearScripts() {
    state().poll = nullptr;
    state().recv = nullptr;
    state().dlopen = nullptr;
    state().open = nullptr;
}

int openCalls() {
    return state().opens;
}

bool allocationFaultsAvailable() {
#ifdef __SANITIZE_ADDRESS__
    return false;
#else
    return true;
#endif
}

void failAllocation(int nth) {
    state().allocations = 0;
    state().failAt = nth;
}

int allocationCalls() {
    return state().allocations;
}

int pollCalls() {
    return state().polls;
}

int recvCalls() {
    return state().recvs;
}

int dlopenCalls() {
    return state().dlopens;
}

int realPoll(pollfd *fds, nfds_t count, int timeout) {
    static auto fn = next<int (*)(pollfd *, nfds_t, int)>("poll");
    return fn(fds, count, timeout);
}

ssize_t realRecv(int fd, void *buffer, size_t length, int flags) {
    static auto fn = next<ssize_t (*)(int, void *, size_t, int)>("recv");
    return fn(fd, buffer, length, flags);
}

void *realDlopen(const char *file, int mode) {
    static auto fn = next<void *(*)(const char *, int)>("dlopen");
    return fn(file, mode);
}

int realOpen(const char *path, int flags, mode_t mode) {
    static auto fn = next<int (*)(const char *, int, ...)>("open");
    return fn(path, flags, mode);
}

}  // namespace xajms::test

using xajms::test::state;

// AddressSanitizer owns malloc and calloc and needs them before anything here could run, so
// the allocation fakes exist only in builds without it.
#ifndef __SANITIZE_ADDRESS__

namespace {

using MallocFn = void *(*)(size_t);
using CallocFn = void *(*)(size_t, size_t);

// True when this allocation is the one a test asked to fail.
bool allocationFails() {
    if (state().failAt == 0) {
        return false;
    }
    state().allocations += 1;
    return state().failAt.fetch_sub(1) == 1;
}

// dlsym may allocate while it looks calloc up; such early calls are served from here.
alignas(16) unsigned char bootstrap[4096];
size_t bootstrapUsed = 0;
bool resolving = false;

void *bootstrapAlloc(size_t size) {
    const size_t rounded = (size + 15) & ~size_t{15};
    if (bootstrapUsed + rounded > sizeof bootstrap) {
        return nullptr;
    }
    void *block = bootstrap + bootstrapUsed;
    bootstrapUsed += rounded;
    return block;
}

}  // namespace

extern "C" {

void *malloc(size_t size) noexcept {
    static MallocFn real = nullptr;
    if (real == nullptr) {
        if (resolving) {
            return bootstrapAlloc(size);
        }
        resolving = true;
        real = reinterpret_cast<MallocFn>(dlsym(RTLD_NEXT, "malloc"));
        resolving = false;
    }
    return allocationFails() ? nullptr : real(size);
}

void *calloc(size_t count, size_t size) noexcept {
    static CallocFn real = nullptr;
    if (real == nullptr) {
        if (resolving) {
            void *block = bootstrapAlloc(count * size);
            return block;  // the bootstrap area starts zeroed
        }
        resolving = true;
        real = reinterpret_cast<CallocFn>(dlsym(RTLD_NEXT, "calloc"));
        resolving = false;
    }
    return allocationFails() ? nullptr : real(count, size);
}

}  // extern "C"

#endif  // __SANITIZE_ADDRESS__

extern "C" {

unsigned int sleep(unsigned int seconds) {
    state().sleeps += 1;
    state().slept += seconds;
    if (state().clockArmed) {
        xajms::test::advanceClock(static_cast<time_t>(seconds));
    }
    return 0;
}

time_t time(time_t *out) noexcept {
    time_t now = 0;
    if (state().clockArmed) {
        std::lock_guard<std::mutex> hold(state().clockLock);
        now = state().now.tv_sec;
    } else {
        static auto fn = xajms::test::next<time_t (*)(time_t *)>("time");
        now = fn(nullptr);
    }
    if (out != nullptr) {
        *out = now;
    }
    return now;
}

int gettimeofday(struct timeval *__restrict tv, void *__restrict tz) noexcept {
    if (!state().clockArmed) {
        static auto fn = xajms::test::next<int (*)(timeval *, void *)>("gettimeofday");
        return fn(tv, tz);
    }
    std::lock_guard<std::mutex> hold(state().clockLock);
    *tv = state().now;
    return 0;
}

pid_t getpid(void) noexcept {
    if (state().pidArmed) {
        return state().pid;
    }
    static auto fn = xajms::test::next<pid_t (*)()>("getpid");
    return fn();
}

int poll(struct pollfd *fds, nfds_t count, int timeout) {
    state().polls += 1;
    if (state().poll) {
        return state().poll(fds, count, timeout);
    }
    return xajms::test::realPoll(fds, count, timeout);
}

ssize_t recv(int fd, void *buffer, size_t length, int flags) {
    state().recvs += 1;
    if (state().recv) {
        return state().recv(fd, buffer, length, flags);
    }
    return xajms::test::realRecv(fd, buffer, length, flags);
}

void *dlopen(const char *file, int mode) noexcept {
    state().dlopens += 1;
    if (state().dlopen) {
        return state().dlopen(file, mode);
    }
    return xajms::test::realDlopen(file, mode);
}

// The mode argument is read only when the flags create a file, as the C library does.
int open(const char *path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list args;
        va_start(args, flags);
        mode = static_cast<mode_t>(va_arg(args, int));
        va_end(args);
    }
    state().opens += 1;
    if (state().open) {
        return state().open(path, flags, mode);
    }
    return xajms::test::realOpen(path, flags, mode);
}

}  // extern "C"
