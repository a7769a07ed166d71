// The service loads this library with LD_PRELOAD. usleep() takes a hundredth of its time. rename() takes as long as on a
// card, so that requests come during a move.
#include <fcntl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

extern "C" int usleep(useconds_t useconds) {
    constexpr long shorter = 100;
    const long nanoseconds = static_cast<long>(useconds) * (1000 / shorter);
    const timespec length{nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
    // A direct system call: a sanitizer intercepts the library function.
    return static_cast<int>(syscall(SYS_clock_nanosleep, CLOCK_MONOTONIC, 0, &length, nullptr));
}

extern "C" int rename(const char* from, const char* to) noexcept {
    usleep(500'000);
    return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}
