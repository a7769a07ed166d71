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

/// The threads of an engine, and the calls of others that are inside of it: both have to end before the engine
/// can.
///
/// It is open when constructed and closed for ever by Close. A thread is in the list from its start until it
/// has been joined, which the next start or JoinAll does. All operations may be called from any thread. The
/// mutex is a leaf: nothing is called with it held.
class KyEngineThreads {
public:
    enum Kind {
        MONITOR,
        WORKER,           ///< the first one of its transaction
        REPEATED_WORKER,  ///< a further one, which the device has asked for
    };

    /// A call of a user that may reach the device. Close waits for it. It converts to false, and the call must
    /// do nothing, once the engine has been closed.
    class Call {
    public:
        enum Admission { UNLESS_CLOSED, ALWAYS };

        explicit Call(KyEngineThreads& threads, Admission admission = UNLESS_CLOSED);
        ~Call();
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;
        explicit operator bool() const { return m_admitted; }

    private:
        // cppcheck-suppress uninitMemberVarPrivate  ; cppcheck does not see that the constructor above is this one
        KyEngineThreads& m_threads;
        bool m_admitted = false;
    };

    KyEngineThreads();
    ~KyEngineThreads();
    KyEngineThreads(const KyEngineThreads&) = delete;
    KyEngineThreads& operator=(const KyEngineThreads&) = delete;

    /// Starts a thread that names itself, calls `work` with its own copy of `job`, and marks its own end. The
    /// work must not throw.
    ///
    /// @param name    cut to 15 characters by the kernel; must be a literal
    /// @param handle  gets the thread's handle; untouched on failure
    /// @return 0, or an error number, which is logged: ESHUTDOWN after Close, EAGAIN if too many workers run
    ///         (8 for a repeated one, 64 for the first of its transaction), otherwise pthread_create's
    template <typename Work>
    int Start(Kind kind, const char* name, pthread_t& handle, const Transaction& job, Work work) {
        std::function<void()> body;
        try {
            body = [job, work] { work(job); };
        } catch (...) {
            // Without a body there is no memory for it.
        }
        return Start(kind, name, handle, std::move(body));
    }

    /// True while a worker has been started and its body has not ended.
    bool WorkerRunning() const { return m_runningWorkers.load() > 0; }

    /// Admits no further threads and calls, and waits until the calls under way have ended.
    void Close();

    /// Waits until all threads have ended, and joins them.
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
