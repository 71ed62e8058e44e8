// The C library calls a fuzz binary replaces, for the library's calls as well: sleep, which
// must not cost real seconds when the library retries, and getpid, which names one process
// (4242) that registry rows can be written for. The tests' fakes stay out: their sleep would
// not sleep on libFuzzer's own threads either, and their recv would bypass the sanitizers'
// check of what recv writes.
#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>

extern "C" {

// A reply may announce any size up to 2 GiB, which the library allocates as announced.
// Above 64 MiB the allocation fails with null, as a host's allocator may, instead of ending
// the run: that takes the library's out-of-memory path, and keeps each input cheap (a freed
// block of 1 GiB costs AddressSanitizer 128 MiB of shadow to poison).
const char *__asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}

// Retries of the library never sleep; libFuzzer's own threads (the memory watch) do.
unsigned int sleep(unsigned int seconds) {
    if (syscall(SYS_gettid) != syscall(SYS_getpid)) {
        const timespec wait{static_cast<time_t>(seconds), 0};
        nanosleep(&wait, nullptr);
    }
    return 0;
}

pid_t getpid(void) noexcept {
    return 4242;
}

}  // extern "C"
