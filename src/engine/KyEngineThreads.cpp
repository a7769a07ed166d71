#include "engine/KyEngineThreads.h"

#include <algorithm>
#include <cerrno>
#include <new>

namespace {

// Calls of this thread that are inside an engine. A device may call Stop from within a call that the engine
// has made to it; Stop then must not wait for the very call it runs in.
thread_local int t_callsOfThisThread = 0;

// A device decides how often a worker is started. More than two at a time mean that it does not keep to the
// protocol.
constexpr int kMostWorkers = 8;

}  // namespace

KyEngineThreads::Call::Call(KyEngineThreads& threads, Admission admission) : m_threads(threads) {
    KyRequestLock lock(threads.m_mutex);
    m_admitted = admission == ALWAYS || !threads.m_closed;
    if (!m_admitted) return;
    ++threads.m_calls;
    ++t_callsOfThisThread;
}

KyEngineThreads::Call::~Call() {
    if (!m_admitted) return;
    KyRequestLock lock(m_threads.m_mutex);
    --m_threads.m_calls;
    --t_callsOfThisThread;
    pthread_cond_broadcast(&m_threads.m_changed);
}

KyEngineThreads::KyEngineThreads() {
    pthread_cond_init(&m_changed, nullptr);
}

KyEngineThreads::~KyEngineThreads() {
    pthread_cond_destroy(&m_changed);
}

int KyEngineThreads::Start(Kind kind, void* (*entry)(void*), void* argument, unsigned long long transaction,
                           pthread_t& handle) {
    KyRequestLock lock(m_mutex);
    if (m_closed) return ESHUTDOWN;
    if (kind == WORKER && m_runningWorkers.load() >= kMostWorkers) return EAGAIN;
    JoinEnded();
    // In the list before it exists, so that a thread once started cannot get lost for want of memory.
    try {
        m_threads.push_back(Thread{kind, pthread_t(), transaction, false});
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    const int error = pthread_create(&m_threads.back().handle, nullptr, entry, argument);
    if (error != 0) {
        m_threads.pop_back();
        return error;
    }
    if (kind == WORKER) m_runningWorkers.fetch_add(1);
    handle = m_threads.back().handle;
    return 0;
}

KyEngineThreads::Thread* KyEngineThreads::FindThisThread() {
    for (Thread& thread : m_threads) {
        if (!thread.ended && pthread_equal(thread.handle, pthread_self()) != 0) return &thread;
    }
    return nullptr;
}

unsigned long long KyEngineThreads::TransactionOfThisThread(unsigned long long otherwise) {
    KyRequestLock lock(m_mutex);
    const Thread* thread = FindThisThread();
    return thread == nullptr ? otherwise : thread->transaction;
}

void KyEngineThreads::Leave() {
    KyRequestLock lock(m_mutex);
    Thread* thread = FindThisThread();
    if (thread == nullptr) return;
    thread->ended = true;
    if (thread->kind == WORKER) m_runningWorkers.fetch_sub(1);
    pthread_cond_broadcast(&m_changed);
}

bool KyEngineThreads::WorkerRunning(unsigned long long transaction) {
    KyRequestLock lock(m_mutex);
    return std::any_of(m_threads.begin(), m_threads.end(), [transaction](const Thread& thread) {
        return thread.kind == WORKER && thread.transaction == transaction && !thread.ended;
    });
}

void KyEngineThreads::Close() {
    KyRequestLock lock(m_mutex);
    m_closed = true;
    while (m_calls > t_callsOfThisThread)
        pthread_cond_wait(&m_changed, m_mutex.Native());
}

bool KyEngineThreads::OthersRunning() {
    const Thread* own = FindThisThread();
    for (const Thread& thread : m_threads) {
        if (!thread.ended && &thread != own) return true;
    }
    return false;
}

void KyEngineThreads::JoinAll() {
    KyRequestLock lock(m_mutex);
    while (OthersRunning())
        pthread_cond_wait(&m_changed, m_mutex.Native());
    JoinEnded();
}

void KyEngineThreads::JoinEnded() {
    for (auto thread = m_threads.begin(); thread != m_threads.end();) {
        if (!thread->ended) {
            ++thread;
            continue;
        }
        // It has left and takes no lock any more: this wait is for its last instructions only.
        pthread_join(thread->handle, nullptr);
        thread = m_threads.erase(thread);
    }
}
