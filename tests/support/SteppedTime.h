#ifndef SUPPORT_STEPPEDTIME_H
#define SUPPORT_STEPPEDTIME_H

#include <chrono>
#include <functional>

/// The wall clock and the sleep of the code under test. It stands in place of usleep() and of clock_gettime()
/// for CLOCK_REALTIME; the other clocks stay real.
///
/// Automatic (at first): a sleep moves the clock on by its length at once and returns.
/// Held: a sleep lasts until the test has moved the clock past its end. A thread that Advance() wakes and
/// that sleeps again begins the new sleep where its last one ended, so that one step of a second carries a
/// wait of four quarters to its end.
///
/// All operations may be called from any thread.
class SteppedTime {
public:
    using Duration = std::chrono::microseconds;

    static Duration Now();  ///< since 1970
    static void Advance(Duration step);
    static void Hold();
    static void Release();         ///< automatic again; sleepers wake, each at the end of its sleep
    static Duration TotalSlept();  ///< the lengths of all sleeps that have begun since the last Reset()

    /// Waits until `count` or more threads are held in a sleep; false when that has not come within ten real
    /// seconds.
    static bool WaitForSleepers(int count);

    /// Calls `hook` on each thread that begins a sleep, before the clock moves and with no lock held; a sleep
    /// within the hook does not call it again. An empty function ends that.
    static void OnSleep(std::function<void()> hook);

    /// Back to the beginning: automatic, no hook, a fixed date, nothing slept. Happens after every test.
    static void Reset();
};

#endif
