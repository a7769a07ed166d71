#include "engine/KyRequestMutex.h"

#include <sched.h>

namespace ky_engine {

namespace {

// A poll holds the mutex for some microseconds. Waking up from a kernel wait costs 50 us or more.
constexpr int kSpinCount = 200;

// A few milliseconds in all.
constexpr int kMaxYields = 10000;

}  // namespace

// If pthread_mutex_init() fails, the static initialiser stays in effect.
KyRequestMutex::KyRequestMutex() : m_creationError(pthread_mutex_init(&m_mutex, nullptr)) {}

KyRequestMutex::~KyRequestMutex() {
    pthread_mutex_destroy(&m_mutex);
}

void KyRequestMutex::Lock() {
    if (pthread_mutex_trylock(&m_mutex) == 0) return;
    m_waiting.fetch_add(1);
    if (!SpinTryLock()) pthread_mutex_lock(&m_mutex);
    m_waiting.fetch_sub(1);
}

bool KyRequestMutex::SpinTryLock() {
    for (int i = 0; i < kSpinCount; ++i) {
        if (pthread_mutex_trylock(&m_mutex) == 0) return true;
        sched_yield();
    }
    return false;
}

void KyRequestMutex::LockAfterWaiters() {
    for (int i = 0; i < kMaxYields && m_waiting.load() > 0; ++i)
        sched_yield();
    pthread_mutex_lock(&m_mutex);
}

void KyRequestMutex::Unlock() {
    pthread_mutex_unlock(&m_mutex);
}

}  // namespace ky_engine
