#ifndef SIMDEVICE_SIMCHANGEQUEUE_H
#define SIMDEVICE_SIMCHANGEQUEUE_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <variant>

#include "host/KyFd.h"
#include "platform/KyValChgInfo.h"

/// Value of a point: a string or a number.
using SimValue = std::variant<std::string, unsigned int>;

/// One change that the device is to report.
struct SimChange {
    unsigned short pointId;
    unsigned short mmIdx;
    SimValue value;
};

/// The changes that the device has yet to report, and their delivery: in order, one at a time.
///
/// Changes are delivered by a thread of the queue's own, or, in manual mode, by whoever calls DeliverPending.
/// While delivery is paused changes gather; without a listener they are dropped when their turn comes. More
/// than 65,536 waiting changes are not kept: the oldest make room.
///
/// Any thread may call any operation, also from inside the listener. Post never waits for the listener;
/// SetListener and SetPaused wait for a running call of the listener, unless they are called from inside it.
/// No lock of the queue is held while the listener runs. The listener must not throw.
class SimChangeQueue {
public:
    using Listener = std::function<void(const KyValChgInfo&)>;

    /// Starts the delivery thread, or opens the event descriptor. Throws std::system_error if it gets none.
    explicit SimChangeQueue(bool manual);
    ~SimChangeQueue();
    SimChangeQueue(const SimChangeQueue&) = delete;
    SimChangeQueue& operator=(const SimChangeQueue&) = delete;

    void SetListener(Listener listener);
    void SetPaused(bool paused);
    void Post(SimChange change);

    /// Announces an answer whose changes are not posted yet; AnswerGiven takes it back after their posting.
    void ExpectAnswer();
    void AnswerGiven();

    /// Waits until nothing waits, nothing is being delivered and no answer is expected.
    ///
    /// @param milliseconds  longest wait, in real time
    /// @return false if there still was something at the end
    bool WaitIdle(unsigned int milliseconds);

    /// True if the calling thread is the one inside the listener.
    bool InListener() const;

    /// Delivers the changes that wait now. @return their number; 0 if not in manual mode, if paused, and
    /// inside the listener
    std::size_t DeliverPending();

    /// Readable while DeliverPending has something to deliver; the queue's own, not to be read. -1 if not in
    /// manual mode.
    int EventFd() const { return m_event.Get(); }

    /// Delivers nothing more and ends the thread; a running call of the listener is waited for.
    void Stop();

private:
    void Run();
    void DeliverFront(std::unique_lock<std::mutex>& lock);
    bool Ready() const;
    void UpdateEvent();
    void AwaitRunningCall(std::unique_lock<std::mutex>& lock);

    const bool m_manual;
    KyFd m_event;

    mutable std::mutex m_mutex;  // guards all below but the thread; a leaf
    std::condition_variable m_changed;
    std::deque<SimChange> m_waiting;
    std::shared_ptr<const Listener> m_listener;
    std::thread::id m_deliverer;  // the thread inside the listener, if any
    std::size_t m_calls = 0;      // deliveries begun
    std::size_t m_expected = 0;
    bool m_paused = false;
    bool m_stopped = false;
    bool m_signalled = false;  // the event descriptor is readable

    std::thread m_thread;
};

#endif
