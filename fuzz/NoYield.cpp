// Replaces sched_yield(), which the engine calls while it waits. On a busy machine, a yield costs milliseconds,
// because the other fuzzers run meanwhile. This version spins, and sleeps at every eighth call: the scheduler
// prefers a thread that has slept.
#include <time.h>

extern "C" int __wrap_sched_yield() {
    constexpr unsigned kSpins = 8;
    static thread_local unsigned t_calls = 0;
    if (++t_calls % kSpins == 0) {
        const timespec moment = {0, 1};
        return nanosleep(&moment, nullptr);
    }
    for (volatile int i = 0; i < 500; i = i + 1) {
    }
    return 0;
}
