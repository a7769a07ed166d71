#ifndef ENGINE_KYREQUESTMUTEX_H
#define ENGINE_KYREQUESTMUTEX_H

#include <pthread.h>

#include <atomic>

#include "engine/KyThreadAnnotations.h"

namespace ky_engine {

/// A non-recursive mutex that a polling thread cannot monopolise.
///
/// A plain mutex is not fair: a monitor that unlocks and locks again at once would starve waiting threads, which have
/// to wake up before they can lock. Lock counts the waiting threads; LockAfterWaiters lets them lock first. Lock spins
/// briefly before it blocks, because a poll holds the mutex for microseconds only.
class KY_CAPABILITY("mutex") KyRequestMutex {
public:
    KyRequestMutex();
    ~KyRequestMutex();
    KyRequestMutex(const KyRequestMutex&) = delete;
    KyRequestMutex& operator=(const KyRequestMutex&) = delete;

    /// The error number of pthread_mutex_init(), 0 for success. The mutex works in either case.
    int CreationError() const { return m_creationError; }

    void Lock() KY_ACQUIRE();
    void Unlock() KY_RELEASE();

    /// Takes the mutex when no thread waits in Lock, or after a few milliseconds.
    void LockAfterWaiters() KY_ACQUIRE();

    /// For use with a condition variable.
    pthread_mutex_t* Native() { return &m_mutex; }

private:
    bool SpinTryLock() KY_TRY_ACQUIRE(true);

    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    int m_creationError;
    std::atomic<int> m_waiting{0};
};

/// Holds a KyRequestMutex while it exists.
class KY_SCOPED_CAPABILITY KyRequestLock {
public:
    explicit KyRequestLock(KyRequestMutex& mutex) KY_ACQUIRE(mutex) : m_mutex(mutex) { mutex.Lock(); }
    ~KyRequestLock() KY_RELEASE() { m_mutex.Unlock(); }
    KyRequestLock(const KyRequestLock&) = delete;
    KyRequestLock& operator=(const KyRequestLock&) = delete;

private:
    KyRequestMutex& m_mutex;
};

/// As KyRequestLock, but takes the mutex with LockAfterWaiters.
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
