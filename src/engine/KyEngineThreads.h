#ifndef ENGINE_KYENGINETHREADS_H
#define ENGINE_KYENGINETHREADS_H

#include <pthread.h>

#include <atomic>
#include <functional>
#include <list>
#include <utility>

#include "engine/KyRequestMutex.h"
#include "engine/KyTransaction.h"

namespace ky_engine {

/// Owns the threads of an engine, and counts the user calls in progress. Stop waits for both.
///
/// Close is final: afterwards no thread is started and no call is admitted. The next Start or JoinAll joins threads
/// that have ended. Any thread may call any operation. No other lock is taken while the mutex is held.
class KyEngineThreads {
public:
    enum Kind {
        MONITOR,
        WORKER,           ///< the first worker of a transaction
        REPEATED_WORKER,  ///< started by a repeated answer of the device
    };

    /// Marks a user call that may call the proxy. Close waits for its destruction. It converts to false if it
    /// was created after Close; the user call must then do nothing.
    class Call {
    public:
        enum Admission { UNLESS_CLOSED, ALWAYS };

        explicit Call(KyEngineThreads& threads, Admission admission = UNLESS_CLOSED);
        ~Call();
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;
        explicit operator bool() const { return m_admitted; }

    private:
        // cppcheck-suppress uninitMemberVarPrivate  ; false positive: the constructor initialises it
        KyEngineThreads& m_threads;
        bool m_admitted = false;
    };

    KyEngineThreads();
    ~KyEngineThreads();
    KyEngineThreads(const KyEngineThreads&) = delete;
    KyEngineThreads& operator=(const KyEngineThreads&) = delete;

    /// Starts a thread that sets its name, calls `work` with a copy of `job`, and marks its end. `work` must not
    /// throw.
    ///
    /// @param name    a literal; the kernel cuts it to 15 characters
    /// @param handle  receives the thread's handle; unchanged on failure
    /// @return 0, or an error number. ESHUTDOWN: after Close. EAGAIN: 8 workers run (REPEATED_WORKER), or 64
    ///         (WORKER). ENOMEM: out of memory. Otherwise that of pthread_create. All but ESHUTDOWN are logged.
    template <typename Work>
    int Start(Kind kind, const char* name, pthread_t& handle, const Transaction& job, Work work) {
        std::function<void()> body;
        try {
            body = [job, work] { work(job); };
        } catch (...) {
            // Out of memory: the overload below reports an empty body.
        }
        return Start(kind, name, handle, std::move(body));
    }

    /// True from the start of a worker until its body has ended.
    bool WorkerRunning() const { return m_runningWorkers.load() > 0; }

    /// Refuses further threads and calls. Waits until the calls in progress have ended.
    void Close();

    /// Waits for all threads and joins them.
    void JoinAll();

private:
    struct Thread {
        KyEngineThreads* owner;
        Kind kind;
        const char* name;
        std::function<void()> body;
        pthread_t handle;
        bool ended;
    };

    static void* Run(void* argument);
    int Start(Kind kind, const char* name, pthread_t& handle, std::function<void()> body);
    int Launch(Kind kind, const char* name, pthread_t& handle, std::function<void()> body);
    using Condition = bool (KyEngineThreads::*)() const;

    void WaitUntil(Condition condition);
    bool NoCalls() const KY_REQUIRES(m_mutex) { return m_calls == 0; }
    bool AllEnded() const KY_REQUIRES(m_mutex);
    void JoinEnded() KY_REQUIRES(m_mutex);

    KyRequestMutex m_mutex;
    pthread_cond_t m_changed;
    std::atomic<int> m_runningWorkers{0};
    std::list<Thread> m_threads KY_GUARDED_BY(m_mutex);
    int m_calls KY_GUARDED_BY(m_mutex) = 0;
    bool m_closed KY_GUARDED_BY(m_mutex) = false;
};

}  // namespace ky_engine

#endif
