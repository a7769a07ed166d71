#include "support/SteppedTime.h"

#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <mutex>
#include <utility>

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
    Duration now = START;
    Duration totalSlept{0};
    std::function<void()> hook;
};

/// Never destroyed: a thread that outlives main() may still sleep.
State& TheState() {
    static State* const state = new State;
    return *state;
}

/// What `work` makes of the state, which no other thread has meanwhile.
template <typename Work>
auto Locked(Work work) {
    State& state = TheState();
    const std::lock_guard<std::mutex> lock(state.mutex);
    return work(state);
}

thread_local bool t_inHook = false;

void CallHook(const std::function<void()>& hook) {
    if (!hook || t_inHook) return;
    struct InHook {
        InHook() { t_inHook = true; }
        ~InHook() { t_inHook = false; }
    } inHook;  // also when the hook throws
    hook();
}

}  // namespace

extern "C" int __wrap_usleep(useconds_t microseconds) {
    const Duration length(microseconds);
    CallHook(Locked([&](State& state) {
        state.totalSlept += length;
        return state.hook;
    }));
    SteppedTime::Advance(length);
    sched_yield();
    return 0;
}

extern "C" int WrapClockGettime(clockid_t clock, timespec* time) {
    if (clock != CLOCK_REALTIME) return RealClockGettime(clock, time);
    const auto microseconds = Locked([](State& state) { return state.now.count(); });
    time->tv_sec = microseconds / 1'000'000;
    time->tv_nsec = static_cast<long>(microseconds % 1'000'000 * 1000);
    return 0;
}

void SteppedTime::Advance(Duration step) {
    Locked([&](State& state) { state.now += step; });
}

Duration SteppedTime::TotalSlept() {
    return Locked([](State& state) { return state.totalSlept; });
}

void SteppedTime::OnSleep(std::function<void()> hook) {
    Locked([&](State& state) { state.hook = std::move(hook); });
}

void SteppedTime::Reset() {
    Locked([](State& state) {
        state.hook = nullptr;
        state.now = START;
        state.totalSlept = Duration(0);
    });
}
