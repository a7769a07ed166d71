#ifndef ENGINE_KYENGINETIME_H
#define ENGINE_KYENGINETIME_H

#include <pthread.h>

#include <atomic>

#include "engine/KyRequestMutex.h"

namespace ky_engine {

/// Seconds since 1970 of the clock that people set: time limits follow it.
long long WallClockSeconds();

/// As KyTferClient::SleepUnlessStopped.
bool SleepUnlessStopped(unsigned int seconds, const std::atomic<bool>& stop);

/// Initialises a condition for WaitFor.
void InitCondition(pthread_cond_t& condition);

/// Waits for a signal or for so many milliseconds of the steady clock.
///
/// @param mutex  held by the caller, and again on return
/// @return 0 after a signal, or for no reason; ETIMEDOUT
int WaitFor(pthread_cond_t& condition, KyRequestMutex& mutex, unsigned int milliseconds);

}  // namespace ky_engine

#endif
