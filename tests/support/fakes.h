// Fakes of the C library calls that make tests slow, unrepeatable or hard to fail.
// tests/support/fakes.cpp defines sleep, time, gettimeofday, getpid, poll, recv, dlopen, open,
// the pool lock's pthread_rwlock_* calls, gethostbyname_r, socket, setsockopt, malloc and
// calloc in the test executables, so that libxajms's calls land there first.
// sleep never sleeps: it counts, and moves the fake clock on while that is armed. The others
// forward to the C library until armed.
#pragma once

#include <dlfcn.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/types.h>

#include <atomic>
#include <functional>
#include <string_view>

namespace xajms::test {

using PollScript = std::function<int(pollfd *, nfds_t, int)>;
using RecvScript = std::function<ssize_t(int, void *, size_t, int)>;
using DlopenScript = std::function<void *(const char *, int)>;
using OpenScript = std::function<int(const char *, int, mode_t)>;
// Stands for pthread_rwlock_init, _wrlock, _unlock and _destroy, named by their last word.
using RwlockScript = std::function<int(std::string_view)>;
// Stands for gethostbyname_r: fills the entry and the result pointer, returns the call's result.
using ResolveScript = std::function<int(hostent *, hostent **)>;
// Asked by socket and setsockopt, named: true fails the call (errno EMFILE and EINVAL).
using FailScript = std::function<bool(std::string_view)>;

// The state that the interposed calls read.
struct Fakes {
    static inline std::atomic<bool> clockArmed{false}, pidArmed{false};
    static inline std::atomic<time_t> seconds{0};
    static inline std::atomic<suseconds_t> micros{0};
    static inline std::atomic<int> sleeps{0}, failAt{0};
    static inline std::atomic<unsigned> slept{0};
    static inline std::atomic<pid_t> pid{0};
    static inline PollScript poll;
    static inline RecvScript recv;
    static inline DlopenScript dlopen;
    static inline OpenScript open;
    static inline RwlockScript rwlock;
    static inline ResolveScript resolve;
    static inline FailScript fail;

    template <typename Fn>
    static Fn next(const char *name) {
        return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
    }
};

// While armed, time() and gettimeofday() report the fake time, and getpid() the fake pid.
inline void armClock(time_t seconds, suseconds_t micros = 0) {
    Fakes::seconds = seconds;
    Fakes::micros = micros;
    Fakes::clockArmed = true;
}
inline void advanceClock(time_t seconds) {
    Fakes::seconds += seconds;
}
inline void armPid(pid_t pid) {
    Fakes::pid = pid;
    Fakes::pidArmed = true;
}
inline int sleepCalls() {
    return Fakes::sleeps;
}
inline unsigned sleptSeconds() {
    return Fakes::slept;
}

// While set, poll(), recv(), dlopen() and open() call the script instead; it may call real*()
// itself.
inline void setPoll(PollScript script) {
    Fakes::poll = std::move(script);
}
inline void setRecv(RecvScript script) {
    Fakes::recv = std::move(script);
}
inline void setDlopen(DlopenScript script) {
    Fakes::dlopen = std::move(script);
}
inline void setOpen(OpenScript script) {
    Fakes::open = std::move(script);
}
// While set, the four lock calls return what the script returns, without locking anything.
// Not available under ThreadSanitizer, which intercepts them itself.
inline void setRwlock(RwlockScript script) {
    Fakes::rwlock = std::move(script);
}
// While set, makeConnection_jms's calls ask the scripts first (not under ThreadSanitizer).
inline void setResolve(ResolveScript script) {
    Fakes::resolve = std::move(script);
}
inline void setFail(FailScript script) {
    Fakes::fail = std::move(script);
}
inline void clearScripts() {
    Fakes::resolve = nullptr;
    Fakes::fail = nullptr;
    Fakes::rwlock = nullptr;
    Fakes::poll = nullptr;
    Fakes::recv = nullptr;
    Fakes::dlopen = nullptr;
    Fakes::open = nullptr;
}
inline int realPoll(pollfd *fds, nfds_t count, int timeout) {
    static auto fn = Fakes::next<int (*)(pollfd *, nfds_t, int)>("poll");
    return fn(fds, count, timeout);
}
inline ssize_t realRecv(int fd, void *buffer, size_t length, int flags) {
    static auto fn = Fakes::next<ssize_t (*)(int, void *, size_t, int)>("recv");
    return fn(fd, buffer, length, flags);
}
inline void *realDlopen(const char *file, int mode) {
    static auto fn = Fakes::next<void *(*)(const char *, int)>("dlopen");
    return fn(file, mode);
}
inline int realOpen(const char *path, int flags, mode_t mode) {
    static auto fn = Fakes::next<int (*)(const char *, int, ...)>("open");
    return fn(path, flags, mode);
}

// AddressSanitizer and ThreadSanitizer own the allocator: under them the test executables
// leave malloc and calloc to the C library (gcc names the sanitizer by a macro, clang by a
// feature).
#if defined(__SANITIZE_THREAD__)
#define XAJMS_TEST_THREAD_SANITIZER 1
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define XAJMS_TEST_SANITIZER_ALLOCATOR 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define XAJMS_TEST_SANITIZER_ALLOCATOR 1
#endif
#endif

// The nth malloc or calloc that libxajms makes from now on (1 = the next) returns null; 0
// disarms. After a run, allocationsLeft() > 0 tells that it made fewer allocations. Allocation
// faults are not available while a sanitizer owns the allocator (the tests skip then).
inline bool allocationFaultsAvailable() {
#ifdef XAJMS_TEST_SANITIZER_ALLOCATOR
    return false;
#else
    return true;
#endif
}
inline void failAllocation(int nth) {
    Fakes::failAt = nth;
}
inline int allocationsLeft() {
    return Fakes::failAt;
}

}  // namespace xajms::test
