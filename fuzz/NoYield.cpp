// The engine yields where it would rather let another thread go first. On a machine that is busy with other
// fuzzers that hands the processor to them, for milliseconds each time. Most waits are over after a
// moment, and who wakes from a sleep is served soon.
#include <time.h>

extern "C" int __wrap_sched_yield() {
    constexpr unsigned spins = 8;
    static thread_local unsigned t_calls = 0;
    if (++t_calls % spins == 0) {
        const timespec moment = {0, 1};
        return nanosleep(&moment, nullptr);
    }
    for (volatile int i = 0; i < 500; i = i + 1) {
    }
    return 0;
}
