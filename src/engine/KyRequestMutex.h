#ifndef ENGINE_KYREQUESTMUTEX_H
#define ENGINE_KYREQUESTMUTEX_H

#include <pthread.h>

#include <atomic>

#include "engine/KyThreadAnnotations.h"

namespace ky_engine {

/// The engine's mutex: a plain, non-recursive one, with a gate in front of it for threads that take it again
/// and again.
///
/// A monitor polls back to back, and a mutex gives no turn to those who wait: a thread that unlocks and locks
/// at once usually wins against one that has to be woken up. So Lock counts those who wait, and
/// LockAfterWaiters lets them go first. A waiting thread tries for a moment before it sleeps, since the
/// monitor leaves within microseconds.
class KY_CAPABILITY("mutex") KyRequestMutex {
public:
    KyRequestMutex();
    ~KyRequestMutex();
    KyRequestMutex(const KyRequestMutex&) = delete;
    KyRequestMutex& operator=(const KyRequestMutex&) = delete;

    /// Why the mutex could not be created, an error number; 0 if it could. It works in either case.
    int CreationError() const { return m_creationError; }

    void Lock() KY_ACQUIRE();
    void Unlock() KY_RELEASE();

    /// Takes the mutex when nobody waits for it any more, or after some milliseconds in which there was
    /// always somebody: others go first, but cannot keep the caller out for ever.
    void LockAfterWaiters() KY_ACQUIRE();

    /// For a condition variable that is used with this mutex.
    pthread_mutex_t* Native() { return &m_mutex; }

private:
    bool SpinTryLock() KY_TRY_ACQUIRE(true);

    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    int m_creationError;
    std::atomic<int> m_waiting{0};
};

/// Holds a KyRequestMutex for the length of a block.
class KY_SCOPED_CAPABILITY KyRequestLock {
public:
    explicit KyRequestLock(KyRequestMutex& mutex) KY_ACQUIRE(mutex) : m_mutex(mutex) { mutex.Lock(); }
    ~KyRequestLock() KY_RELEASE() { m_mutex.Unlock(); }
    KyRequestLock(const KyRequestLock&) = delete;
    KyRequestLock& operator=(const KyRequestLock&) = delete;

private:
    KyRequestMutex& m_mutex;
};

/// As KyRequestLock, for a thread that polls: see KyRequestMutex::LockAfterWaiters.
class KY_SCOPED_CAPABILITY KyPollingLock {
public:
    explicit KyPollingLock(KyRequestMutex& mutex) KY_ACQUIRE(mutex) : m_mutex(mutex) {
        mutex.LockAfterWaiters();
    }
    ~KyPollingLock() KY_RELEASE() { m_mutex.Unlock(); }
    KyPollingLock(const KyPollingLock&) = delete;
    KyPollingLock& operator=(const KyPollingLock&) = delete;

private:
    KyRequestMutex& m_mutex;
};

}  // namespace ky_engine

#endif
