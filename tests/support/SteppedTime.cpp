#include "support/SteppedTime.h"

#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <iterator>
#include <mutex>
#include <set>
#include <utility>

#include "support/Eventually.h"

// With 64-bit times on a 32-bit processor, the C library's function has a name of its own.
#ifdef __USE_TIME_BITS64
#define CLOCK_GETTIME "__clock_gettime64"
#else
#define CLOCK_GETTIME "clock_gettime"
#endif
extern "C" int RealClockGettime(clockid_t clock, timespec* time) __asm__("__real_" CLOCK_GETTIME);
extern "C" int WrapClockGettime(clockid_t clock, timespec* time) __asm__("__wrap_" CLOCK_GETTIME);

namespace {

using Duration = SteppedTime::Duration;

constexpr Duration START = std::chrono::seconds(1710491400);

struct State {
    std::mutex mutex;
    std::condition_variable changed;
    Duration now = START;
    Duration totalSlept{0};
    std::function<void()> hook;
    bool held = false;
    std::multiset<Duration> ends;  // of the held sleeps
    unsigned long step = 1;        // counts what moves the clock while it is held
    unsigned long release = 0;  // counts the releases: a later Hold() does not catch those released earlier
};

/// Never destroyed: a thread that outlives main() may still sleep.
State& TheState() {
    static State* const state = new State;
    return *state;
}

/// What `work` makes of the state, which nobody else has meanwhile.
template <typename Work>
auto Locked(Work work) {
    State& state = TheState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    return work(state);
}

/// Where the thread's last held sleep ended, and in which step it was woken.
thread_local Duration t_lastWake{0};
thread_local unsigned long t_lastStep = 0;
thread_local bool t_inHook = false;

void CallHook(const std::function<void()>& hook) {
    if (!hook || t_inHook) return;
    struct InHook {
        InHook() { t_inHook = true; }
        ~InHook() { t_inHook = false; }
    } inHook;  // also when the hook throws
    hook();
}

void SleepHeld(State& state, std::unique_lock<std::mutex>& lock, Duration length) {
    const Duration end = (t_lastStep == state.step ? t_lastWake : state.now) + length;
    const unsigned long release = state.release;
    const auto mine = state.ends.insert(end);
    state.changed.wait(lock, [&] { return state.release != release || state.now >= end; });
    state.ends.erase(mine);
    t_lastWake = end;
    t_lastStep = state.step;
}

void ReleaseSleepers(State& state) {
    state.held = false;
    ++state.release;
    if (!state.ends.empty()) state.now = std::max(state.now, *state.ends.rbegin());
    state.changed.notify_all();
}

void Sleep(Duration length) {
    CallHook(Locked([&](State& state) {
        state.totalSlept += length;
        return state.hook;
    }));
    State& state = TheState();
    std::unique_lock<std::mutex> lock(state.mutex);
    if (state.held) return SleepHeld(state, lock, length);
    state.now += length;
    lock.unlock();
    sched_yield();
}

}  // namespace

extern "C" int __wrap_usleep(useconds_t microseconds) {
    Sleep(Duration(microseconds));
    return 0;
}

extern "C" int WrapClockGettime(clockid_t clock, timespec* time) {
    if (clock != CLOCK_REALTIME) return RealClockGettime(clock, time);
    const auto microseconds = SteppedTime::Now().count();
    time->tv_sec = microseconds / 1'000'000;
    time->tv_nsec = static_cast<long>(microseconds % 1'000'000 * 1000);
    return 0;
}

Duration SteppedTime::Now() {
    return Locked([](State& state) { return state.now; });
}

void SteppedTime::Advance(Duration step) {
    Locked([&](State& state) {
        state.now += step;
        ++state.step;
        state.changed.notify_all();
    });
}

void SteppedTime::Hold() {
    Locked([](State& state) {
        state.held = true;
        ++state.step;
    });
}

void SteppedTime::Release() {
    Locked(ReleaseSleepers);
}

Duration SteppedTime::TotalSlept() {
    return Locked([](State& state) { return state.totalSlept; });
}

bool SteppedTime::WaitForSleepers(int count) {
    // Those that Advance() has woken may not have left yet.
    const auto sleeping = [](State& state) {
        return std::distance(state.ends.upper_bound(state.now), state.ends.end());
    };
    return WaitUntil([&] { return Locked(sleeping) >= count; });
}

void SteppedTime::OnSleep(std::function<void()> hook) {
    Locked([&](State& state) { state.hook = std::move(hook); });
}

void SteppedTime::Reset() {
    Locked([](State& state) {
        ReleaseSleepers(state);
        state.hook = nullptr;
        state.now = START;
        state.totalSlept = Duration(0);
    });
}
