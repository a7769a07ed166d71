#ifndef SUPPORT_STEPPEDTIME_H
#define SUPPORT_STEPPEDTIME_H

#include <chrono>
#include <functional>

/// Replaces usleep(), and clock_gettime() for CLOCK_REALTIME, in the code under test. The other clocks stay real. A sleep
/// advances the clock and returns at once.
/// All operations may be called from any thread.
class SteppedTime {
public:
    using Duration = std::chrono::microseconds;

    static void Advance(Duration step);
    static Duration TotalSlept();  ///< the lengths of all sleeps that have begun since the last Reset()

    /// Calls `hook` at the start of each sleep, on the sleeping thread and without a lock. A sleep in the hook does not
    /// call it again. An empty function removes the hook.
    static void OnSleep(std::function<void()> hook);

    /// Removes the hook, and sets a fixed date with nothing slept. Runs after every test.
    static void Reset();
};

#endif
