#include "engine/KyEngineTime.h"

#include <time.h>
#include <unistd.h>

namespace ky_engine {

long long WallClockSeconds() {
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

bool SleepUnlessStopped(unsigned int seconds, const std::atomic<bool>& stop) {
    constexpr unsigned int kStepsPerSecond = 4;
    constexpr useconds_t kStepMicroseconds = 250000;
    if (stop) return false;
    const unsigned long long steps = static_cast<unsigned long long>(seconds) * kStepsPerSecond;
    for (unsigned long long i = 0; i < steps; ++i) {
        usleep(kStepMicroseconds);
        if (stop) return false;
    }
    return true;
}

void InitCondition(pthread_cond_t& condition) {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&condition, &attributes);
    pthread_condattr_destroy(&attributes);
}

int WaitFor(pthread_cond_t& condition, KyRequestMutex& mutex, unsigned int milliseconds) {
    constexpr long kNanosecondsPerSecond = 1000000000;
    struct timespec end = {};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += static_cast<time_t>(milliseconds / 1000);
    end.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000;
    if (end.tv_nsec >= kNanosecondsPerSecond) {
        ++end.tv_sec;
        end.tv_nsec -= kNanosecondsPerSecond;
    }
    return pthread_cond_timedwait(&condition, mutex.Native(), &end);
}

}  // namespace ky_engine
