// Goes into the service with LD_PRELOAD. Makes each usleep() last a hundredth of its time, and a rename() as long as
// it may last on a card, so that a request can come meanwhile.
#include <fcntl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

extern "C" int usleep(useconds_t useconds) {
    constexpr long shorter = 100;
    const long nanoseconds = static_cast<long>(useconds) * (1000 / shorter);
    const timespec length{nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
    // A sanitizer knows nothing of this call and so does not take it for a second sleep.
    return static_cast<int>(syscall(SYS_clock_nanosleep, CLOCK_MONOTONIC, 0, &length, nullptr));
}

extern "C" int rename(const char* from, const char* to) noexcept {
    usleep(500'000);
    return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}
