// The interposed C library calls of the test executables.
#include "support/fakes.h"

#include <fcntl.h>

#include <cstdarg>
#include <cstring>

using xajms::test::Fakes;

extern "C" {

#ifndef XAJMS_TEST_SANITIZER_ALLOCATOR
// The C library's own entry points: they never call back into these, so dlsym (which calls
// calloc) works while they are interposed.
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);

// Counts down only the allocations that libxajms makes itself: the C library's own, inside
// the calls the library makes, are not the library's to handle.
static bool failThisAllocation(const void *caller) {
    if (Fakes::failAt <= 0) {
        return false;
    }
    Dl_info info{};
    if (dladdr(caller, &info) == 0 || info.dli_fname == nullptr ||
        std::strstr(info.dli_fname, "libxajms") == nullptr) {
        return false;
    }
    return --Fakes::failAt == 0;
}
void *malloc(size_t size) noexcept {
    return failThisAllocation(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}
void *calloc(size_t count, size_t size) noexcept {
    return failThisAllocation(__builtin_return_address(0)) ? nullptr
                                                           : __libc_calloc(count, size);
}
#endif

unsigned int sleep(unsigned int seconds) {
    Fakes::sleeps += 1;
    Fakes::slept += seconds;
    if (Fakes::clockArmed) {
        Fakes::seconds += seconds;
    }
    return 0;
}

time_t time(time_t *out) noexcept {
    static auto fn = Fakes::next<time_t (*)(time_t *)>("time");
    const time_t now = Fakes::clockArmed ? Fakes::seconds.load() : fn(nullptr);
    if (out != nullptr) {
        *out = now;
    }
    return now;
}

int gettimeofday(struct timeval *__restrict tv, void *__restrict tz) noexcept {
    static auto fn = Fakes::next<int (*)(timeval *, void *)>("gettimeofday");
    if (!Fakes::clockArmed) {
        return fn(tv, tz);
    }
    *tv = timeval{Fakes::seconds, Fakes::micros};
    return 0;
}

pid_t getpid(void) noexcept {
    static auto fn = Fakes::next<pid_t (*)()>("getpid");
    return Fakes::pidArmed ? Fakes::pid.load() : fn();
}

int poll(struct pollfd *fds, nfds_t count, int timeout) {
    return Fakes::poll ? Fakes::poll(fds, count, timeout)
                       : xajms::test::realPoll(fds, count, timeout);
}

ssize_t recv(int fd, void *buffer, size_t length, int flags) {
    return Fakes::recv ? Fakes::recv(fd, buffer, length, flags)
                       : xajms::test::realRecv(fd, buffer, length, flags);
}

// ThreadSanitizer keeps its own open; replacing it there stops the threaded tests.
#ifndef XAJMS_TEST_THREAD_SANITIZER
int open(const char *path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    return Fakes::open ? Fakes::open(path, flags, mode) : xajms::test::realOpen(path, flags, mode);
}
#endif

void *dlopen(const char *file, int mode) noexcept {
    return Fakes::dlopen ? Fakes::dlopen(file, mode) : xajms::test::realDlopen(file, mode);
}

}  // extern "C"
