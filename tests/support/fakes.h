// Fakes of the C library calls that make tests slow or unrepeatable. The test executable
// defines sleep, time, gettimeofday, getpid, poll, recv, dlopen and open itself, so that every call
// that libxajms makes lands here first. Each fake forwards to the C library until a test arms
// it; sleep never sleeps in a test executable: it only counts.
#pragma once

#include <dlfcn.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/types.h>

#include <functional>

namespace xajms::test {

// Clock: while armed, time() and gettimeofday() report the fake time, and sleep(n) moves it
// on by n seconds.
void armClock(time_t seconds, suseconds_t micros = 0);
void disarmClock();
void advanceClock(time_t seconds);

// Every sleep() call of this process, since the start or the last reset.
int sleepCalls();
unsigned sleptSeconds();
void resetSleeps();

// getpid() returns `pid` while armed.
void armPid(pid_t pid);
void disarmPid();

// While set, poll(), recv() and dlopen() call the script instead of the C library; the
// script may call the real* functions itself. Each counts its calls either way.
using PollScript = std::function<int(pollfd *, nfds_t, int)>;
using RecvScript = std::function<ssize_t(int, void *, size_t, int)>;
using DlopenScript = std::function<void *(const char *, int)>;
// open(path, flags, mode); the script may call realOpen itself.
using OpenScript = std::function<int(const char *, int, mode_t)>;
void setPoll(PollScript script);
void setRecv(RecvScript script);
void setDlopen(DlopenScript script);
void setOpen(OpenScript script);
void clearScripts();
int pollCalls();
int recvCalls();
int dlopenCalls();
int openCalls();

// Allocation faults: while armed, the nth call of malloc or calloc from now on (1 = the next)
// returns null; calls before it and after it are served. Counts every call either way.
// Not available under AddressSanitizer, which owns the allocator: tests skip then.
bool allocationFaultsAvailable();
void failAllocation(int nth);
int allocationCalls();

int realPoll(pollfd *fds, nfds_t count, int timeout);
ssize_t realRecv(int fd, void *buffer, size_t length, int flags);
void *realDlopen(const char *file, int mode);
int realOpen(const char *path, int flags, mode_t mode);

}  // namespace xajms::test
