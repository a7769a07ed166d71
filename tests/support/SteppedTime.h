#ifndef SUPPORT_STEPPEDTIME_H
#define SUPPORT_STEPPEDTIME_H

#include <chrono>
#include <functional>

/// The wall clock and the sleep of the code under test. It stands in place of usleep() and of clock_gettime()
/// for CLOCK_REALTIME; the other clocks stay real. A sleep moves the clock on by its length at once and returns.
/// All operations may be called from any thread.
class SteppedTime {
public:
    using Duration = std::chrono::microseconds;

    static void Advance(Duration step);
    static Duration TotalSlept();  ///< the lengths of all sleeps that have begun since the last Reset()

    /// Calls `hook` on each thread that begins a sleep, before the clock moves and with no lock held; a sleep
    /// within the hook does not call it again. An empty function ends that.
    static void OnSleep(std::function<void()> hook);

    /// Back to the beginning: no hook, a fixed date, nothing slept. Happens after every test.
    static void Reset();
};

#endif
