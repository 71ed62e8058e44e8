// The interposed C library calls of the test executables.
#include "support/fakes.h"

#include <fcntl.h>
#include <pthread.h>

#include <cerrno>
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
    return failThisAllocation(__builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
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

#ifndef XAJMS_TEST_THREAD_SANITIZER
// The pool lock's calls: the script's result while one is set, else the C library's.
using RwlockCall = int (*)(pthread_rwlock_t *);
static int rwlockCall(std::string_view call, RwlockCall real, pthread_rwlock_t *lock) {
    return Fakes::rwlock ? Fakes::rwlock(call) : real(lock);
}
int pthread_rwlock_wrlock(pthread_rwlock_t *lock) noexcept {
    static auto fn = Fakes::next<RwlockCall>("pthread_rwlock_wrlock");
    return rwlockCall("wrlock", fn, lock);
}
int pthread_rwlock_unlock(pthread_rwlock_t *lock) noexcept {
    static auto fn = Fakes::next<RwlockCall>("pthread_rwlock_unlock");
    return rwlockCall("unlock", fn, lock);
}
int pthread_rwlock_destroy(pthread_rwlock_t *lock) noexcept {
    static auto fn = Fakes::next<RwlockCall>("pthread_rwlock_destroy");
    return rwlockCall("destroy", fn, lock);
}
int gethostbyname_r(const char *__restrict name, hostent *__restrict entry, char *__restrict buffer,
                    size_t length, hostent **__restrict found, int *__restrict error) {
    using Fn = int (*)(const char *, hostent *, char *, size_t, hostent **, int *);
    static auto fn = Fakes::next<Fn>("gethostbyname_r");
    return Fakes::resolve ? Fakes::resolve(entry, found)
                          : fn(name, entry, buffer, length, found, error);
}
int socket(int domain, int type, int protocol) noexcept {
    static auto fn = Fakes::next<int (*)(int, int, int)>("socket");
    if (Fakes::fail && Fakes::fail("socket")) {
        errno = EMFILE;
        return -1;
    }
    return fn(domain, type, protocol);
}
int setsockopt(int fd, int level, int name, const void *value, socklen_t length) noexcept {
    static auto fn = Fakes::next<int (*)(int, int, int, const void *, socklen_t)>("setsockopt");
    if (Fakes::fail && Fakes::fail("setsockopt")) {
        errno = EINVAL;
        return -1;
    }
    return fn(fd, level, name, value, length);
}
int pthread_rwlock_init(pthread_rwlock_t *__restrict lock,
                        const pthread_rwlockattr_t *__restrict attributes) noexcept {
    static auto fn = Fakes::next<int (*)(pthread_rwlock_t *, const pthread_rwlockattr_t *)>(
        "pthread_rwlock_init");
    return Fakes::rwlock ? Fakes::rwlock("init") : fn(lock, attributes);
}
#endif

void *dlopen(const char *file, int mode) noexcept {
    return Fakes::dlopen ? Fakes::dlopen(file, mode) : xajms::test::realDlopen(file, mode);
}

}  // extern "C"
