#ifndef ENGINE_KYENGINETIME_H
#define ENGINE_KYENGINETIME_H

#include <pthread.h>

#include <atomic>

#include "engine/KyRequestMutex.h"

namespace ky_engine {

/// Seconds since 1970 of the system clock. Time limits use it.
long long WallClockSeconds();

/// Implements KyTferClient::SleepUnlessStopped.
bool SleepUnlessStopped(unsigned int seconds, const std::atomic<bool>& stop);

/// Initialises a condition for WaitFor.
void InitCondition(pthread_cond_t& condition);

/// Waits for a signal, at most for this many milliseconds of the monotonic clock.
///
/// @param mutex  held by the caller; released during the wait
/// @return 0 after a signal or a spurious wake-up; ETIMEDOUT
int WaitFor(pthread_cond_t& condition, KyRequestMutex& mutex, unsigned int milliseconds);

}  // namespace ky_engine

#endif
