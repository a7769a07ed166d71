#ifndef SIMDEVICE_SIMCHANGES_H
#define SIMDEVICE_SIMCHANGES_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <variant>

#include "host/KyFd.h"
#include "platform/KyValChgInfo.h"
#include "simdevice/SimAbort.h"

/// Value of a point: a string or a number.
using SimValue = std::variant<std::string, unsigned int>;

/// A change of a point, to be reported.
struct SimChange {
    unsigned short pointId;
    unsigned short mmIdx;
    SimValue value;
};

/// A queue of changes, which are delivered in order, one at a time.
///
/// A thread of the queue delivers the changes; in manual mode, the caller of DeliverPending does. A change whose turn
/// comes while there is no listener is dropped. The queue holds 65,536 changes; if there are more, it drops the
/// oldest ones.
///
/// Any thread may call any operation, also from inside the listener. Post never waits for the listener.
/// SetListener waits for a running call of the listener, unless it is called from inside the listener. No lock
/// of the queue is held while the listener runs. The listener must not throw. While the queue is paused, changes
/// stay in it.
class SimChangeQueue {
public:
    using Listener = std::function<void(const KyValChgInfo&)>;

    /// Starts the delivery thread, or opens the event descriptor. Throws std::system_error if that fails.
    explicit SimChangeQueue(bool manual);
    ~SimChangeQueue();
    SimChangeQueue(const SimChangeQueue&) = delete;
    SimChangeQueue& operator=(const SimChangeQueue&) = delete;

    void SetListener(Listener listener);
    void SetPaused(bool paused);
    void Post(SimChange change);

    /// Announces an answer: WaitIdle waits until AnswerGiven is called, after the answer's changes are posted.
    void ExpectAnswer();
    void AnswerGiven();

    /// Waits until no change is queued or being delivered, and no answer is expected.
    ///
    /// @param milliseconds  longest wait, in real time
    /// @return false if the wait has timed out
    bool WaitIdle(unsigned int milliseconds);

    /// True if the calling thread is inside the listener.
    bool InListener() const;

    /// Manual mode: delivers the changes that are queued now. @return their number; 0 if not in manual mode,
    /// while paused, and inside the listener
    std::size_t DeliverPending();

    /// Manual mode: readable while changes are queued; for polling only, do not read it. Otherwise -1.
    int EventFd() const { return m_event.Get(); }

    /// Stops delivery and joins the thread; waits for a running call of the listener.
    void Stop();

private:
    void Run();
    void DeliverFront(std::unique_lock<std::mutex>& lock);
    void UpdateEvent();
    bool Ready() const { return !m_paused && !m_waiting.empty(); }

    const bool m_manual;
    KyFd m_event;

    mutable std::mutex m_mutex;  // guards all below but the thread; a leaf
    std::condition_variable m_changed;
    std::deque<SimChange> m_waiting;
    std::shared_ptr<const Listener> m_listener;
    std::thread::id m_deliverer;  // the thread inside the listener
    std::size_t m_calls = 0;      // deliveries begun
    std::size_t m_expected = 0;
    bool m_paused = false;
    bool m_stopped = false;
    bool m_signalled = false;  // the event descriptor is readable

    std::thread m_thread;
};

/// Gives delayed answers, one after the other, on a thread that runs only while there are any.
///
/// Any thread may schedule; only Stop blocks.
class SimLateAnswers {
public:
    /// @param abort    ends the delays, and drops the answers; must outlive this object
    /// @param changes  is told of every answer that is scheduled; must outlive this object
    SimLateAnswers(SimAbort& abort, SimChangeQueue& changes) : m_abort(abort), m_changes(changes) {}
    ~SimLateAnswers() { Stop(); }
    SimLateAnswers(const SimLateAnswers&) = delete;
    SimLateAnswers& operator=(const SimLateAnswers&) = delete;

    /// Calls `answer` on the thread after `delayMs` milliseconds. Throws std::system_error if there is no
    /// thread.
    void Schedule(unsigned int delayMs, std::function<void()> answer);

    /// Joins the thread, after the delays of all scheduled answers. Trip the abort first to end the delays.
    void Stop();

private:
    using Answer = std::pair<unsigned int, std::function<void()>>;

    void Run();

    SimAbort& m_abort;
    SimChangeQueue& m_changes;

    std::mutex m_mutex;  // guards all below, except Stop's join; taken before the queue's
    std::deque<Answer> m_answers;
    bool m_running = false;  // the thread will take the next answer
    std::thread m_thread;
};

#endif
