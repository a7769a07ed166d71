#ifndef ENGINE_KYENGINETHREADS_H
#define ENGINE_KYENGINETHREADS_H

#include <pthread.h>

#include <atomic>
#include <list>

#include "engine/KyRequestMutex.h"

/// The threads that an engine has started, and the calls of others that are inside of it: what has to end
/// before the engine can.
///
/// It is open when constructed and closed by Close, for ever. A thread is in the list from its start until it
/// has been joined, which happens when the next one starts or in JoinAll; it announces its end with Leave.
/// All operations may be called from any thread. Its mutex is taken last: nothing is called with it held.
class KyEngineThreads {
public:
    enum Kind { MONITOR, WORKER };

    /// A call of a user into the engine that may reach the device. Close waits for it to end. It converts to
    /// false, and the call must do nothing, once the engine has been closed.
    class Call {
    public:
        enum Admission { UNLESS_CLOSED, ALWAYS };

        explicit Call(KyEngineThreads& threads, Admission admission = UNLESS_CLOSED);
        ~Call();
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;
        explicit operator bool() const { return m_admitted; }

    private:
        KyEngineThreads& m_threads;
        bool m_admitted;
    };

    KyEngineThreads();
    ~KyEngineThreads();
    KyEngineThreads(const KyEngineThreads&) = delete;
    KyEngineThreads& operator=(const KyEngineThreads&) = delete;

    /// Joins the threads that have ended and starts one with default attributes.
    ///
    /// @param handle  gets the new thread's handle; untouched on failure
    /// @return 0, or an error number: ESHUTDOWN after Close, EAGAIN if too many workers run already,
    ///         otherwise pthread_create's
    int Start(Kind kind, void* (*entry)(void*), void* argument, unsigned long long transaction,
              pthread_t& handle);

    /// The transaction that the calling thread was started for, or `otherwise` if it is none of these
    /// threads.
    unsigned long long TransactionOfThisThread(unsigned long long otherwise);

    /// The last thing that one of these threads does: it touches neither this object nor the engine
    /// afterwards. Does nothing in another thread.
    void Leave();

    /// True while a worker has been started and has not called Leave.
    bool WorkerRunning() const { return m_runningWorkers.load() > 0; }

    /// The same for a worker that was started for this transaction.
    bool WorkerRunning(unsigned long long transaction);

    /// Admits no further threads and calls, and waits until the calls of other threads have ended.
    void Close();

    /// Waits until all threads have ended, the calling one excepted, and joins them.
    void JoinAll();

private:
    struct Thread {
        Kind kind;
        pthread_t handle;
        unsigned long long transaction;
        bool ended;
    };

    Thread* FindThisThread() KY_REQUIRES(m_mutex);
    bool OthersRunning() KY_REQUIRES(m_mutex);
    void JoinEnded() KY_REQUIRES(m_mutex);

    KyRequestMutex m_mutex;
    pthread_cond_t m_changed;
    std::atomic<int> m_runningWorkers{0};
    std::list<Thread> m_threads KY_GUARDED_BY(m_mutex);
    int m_calls KY_GUARDED_BY(m_mutex) = 0;
    bool m_closed KY_GUARDED_BY(m_mutex) = false;
};

#endif
