// The private /var/orlom, and the calls a fuzz binary replaces for the library as well: sleep,
// so that retries cost no real seconds, and getpid, one process (4242) that rows can name. The
// tests' fakes stay out: their recv would bypass the sanitizers' check of what it writes.
#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>

#include "common.h"

extern "C" {

// No target may touch the machine's registry file; libFuzzer has started no thread yet.
int LLVMFuzzerInitialize(int *, char ***) {
    const std::string why = xajms::test::enterPrivateOrlom();
    xajms::fuzz::check(why.empty(), why.c_str());
    return 0;
}

// A reply may announce up to 2 GiB, which the library allocates as announced: above 64 MiB
// the allocation fails with null, as a host's may, which keeps each input cheap.
const char *__asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}

// Only libFuzzer's own threads (the memory watch) really sleep.
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
