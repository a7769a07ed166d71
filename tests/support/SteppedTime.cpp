#include "support/SteppedTime.h"

#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
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

constexpr Duration::rep kStart = 1'710'491'400'000'000;

std::atomic<Duration::rep> s_now{kStart};
std::atomic<Duration::rep> s_slept{0};
std::mutex s_hookMutex;
// Never destroyed: a thread that outlives main() may still sleep.
std::function<void()>& s_hook = *new std::function<void()>;
thread_local bool t_inHook = false;

void CallHook() {
    std::unique_lock<std::mutex> lock(s_hookMutex);
    const std::function<void()> hook = s_hook;
    lock.unlock();
    if (!hook || t_inHook) return;
    struct InHook {
        InHook() { t_inHook = true; }
        ~InHook() { t_inHook = false; }
    } inHook;  // also when the hook throws
    hook();
}

}  // namespace

extern "C" int __wrap_usleep(useconds_t microseconds) {
    s_slept += microseconds;
    CallHook();
    s_now += microseconds;
    sched_yield();
    return 0;
}

extern "C" int WrapClockGettime(clockid_t clock, timespec* time) {
    if (clock != CLOCK_REALTIME) return RealClockGettime(clock, time);
    const Duration::rep now = s_now;
    time->tv_sec = now / 1'000'000;
    time->tv_nsec = static_cast<long>(now % 1'000'000 * 1000);
    return 0;
}

void SteppedTime::Advance(Duration step) {
    s_now += step.count();
}

SteppedTime::Duration SteppedTime::TotalSlept() {
    return Duration(s_slept);
}

void SteppedTime::OnSleep(std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(s_hookMutex);
    s_hook = std::move(hook);
}

void SteppedTime::Reset() {
    OnSleep(nullptr);
    s_now = kStart;
    s_slept = 0;
}
