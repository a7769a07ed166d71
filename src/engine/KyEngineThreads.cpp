#include "engine/KyEngineThreads.h"

#include <sys/prctl.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "engine/KyEngineTime.h"
#include "engine/KyTferClientConstants.h"
#include "platform/KyDlog.h"

namespace ky_engine {

namespace {

// Limits the memory that a device can take with repeated answers.
constexpr int kMaxRepeatedWorkers = 8;

// Higher than the other limit: hanging workers of earlier transactions must not block a new one.
constexpr int kMaxWorkers = 64;

}  // namespace

KyEngineThreads::Call::Call(KyEngineThreads& threads, Admission admission) : m_threads(threads) {
    KyRequestLock lock(threads.m_mutex);
    m_admitted = admission == ALWAYS || !threads.m_closed;
    if (m_admitted) ++threads.m_calls;
}

KyEngineThreads::Call::~Call() {
    if (!m_admitted) return;
    KyRequestLock lock(m_threads.m_mutex);
    --m_threads.m_calls;
    pthread_cond_broadcast(&m_threads.m_changed);
}

KyEngineThreads::KyEngineThreads() {
    InitCondition(m_changed);
}

KyEngineThreads::~KyEngineThreads() {
    pthread_cond_destroy(&m_changed);
}

int KyEngineThreads::Start(Kind kind, const char* name, pthread_t& handle, std::function<void()> body) {
    const int error = Launch(kind, name, handle, std::move(body));
    if (error != 0 && error != ESHUTDOWN) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "StartThread", "Could not start thread(%s) error(%d)", name,
                        error);
    }
    return error;
}

int KyEngineThreads::Launch(Kind kind, const char* name, pthread_t& handle, std::function<void()> body) {
    if (!body) return ENOMEM;
    KyRequestLock lock(m_mutex);
    if (m_closed) return ESHUTDOWN;
    const int most = kind == WORKER ? kMaxWorkers : kMaxRepeatedWorkers;
    if (kind != MONITOR && m_runningWorkers.load() >= most) return EAGAIN;
    JoinEnded();
    // Added before the thread starts: otherwise a failed allocation would lose a running thread.
    try {
        m_threads.push_back(Thread{this, kind, name, std::move(body), pthread_t(), false});
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    const int error = pthread_create(&m_threads.back().handle, nullptr, Run, &m_threads.back());
    if (error != 0) {
        m_threads.pop_back();
        return error;
    }
    if (kind != MONITOR) m_runningWorkers.fetch_add(1);
    handle = m_threads.back().handle;
    return 0;
}

void* KyEngineThreads::Run(void* argument) {
    auto* const thread = static_cast<Thread*>(argument);
    // prctl() cuts a long name; pthread_setname_np() refuses it.
    prctl(PR_SET_NAME, thread->name);
    thread->body();
    KyEngineThreads& owner = *thread->owner;
    KyRequestLock lock(owner.m_mutex);
    thread->ended = true;
    if (thread->kind != MONITOR) owner.m_runningWorkers.fetch_sub(1);
    pthread_cond_broadcast(&owner.m_changed);
    return nullptr;
}

void KyEngineThreads::Close() {
    {
        KyRequestLock lock(m_mutex);
        m_closed = true;
    }
    WaitUntil(&KyEngineThreads::NoCalls);
}

void KyEngineThreads::JoinAll() {
    WaitUntil(&KyEngineThreads::AllEnded);
    KyRequestLock lock(m_mutex);
    JoinEnded();
}

// Warns after 1.5 seconds: a monitor ends within one, so a proxy call must be hanging.
void KyEngineThreads::WaitUntil(Condition condition) {
    constexpr unsigned int kWarnAfterMs = 1500;
    {
        KyRequestLock lock(m_mutex);
        int error = 0;
        while (error == 0 && !(this->*condition)())
            error = WaitFor(m_changed, m_mutex, kWarnAfterMs);
        if ((this->*condition)()) return;
    }
    __dlog_printfex(KY_DLOG_WARNING, kSource, "Stop", "Waiting for a call of the device proxy to return");
    KyRequestLock lock(m_mutex);
    while (!(this->*condition)())
        pthread_cond_wait(&m_changed, m_mutex.Native());
}

bool KyEngineThreads::AllEnded() const {
    return std::all_of(m_threads.begin(), m_threads.end(), [](const Thread& thread) { return thread.ended; });
}

void KyEngineThreads::JoinEnded() {
    for (auto thread = m_threads.begin(); thread != m_threads.end();) {
        if (!thread->ended) {
            ++thread;
            continue;
        }
        // Returns soon: an ended thread takes no lock any more.
        pthread_join(thread->handle, nullptr);
        thread = m_threads.erase(thread);
    }
}

}  // namespace ky_engine
