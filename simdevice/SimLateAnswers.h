#ifndef SIMDEVICE_SIMLATEANSWERS_H
#define SIMDEVICE_SIMLATEANSWERS_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include "simdevice/SimAbort.h"
#include "simdevice/SimChangeQueue.h"

/// Gives the answers that come late, from a thread of its own, one after the other. An answer whose wait is
/// aborted is not given.
///
/// Any thread may schedule; nothing blocks but Stop.
class SimLateAnswers {
public:
    /// Starts the thread; throws std::system_error if there is none to be had.
    ///
    /// @param abort    ends the waiting; must outlive this object, as the queue must
    /// @param changes  is told of every answer that is yet to come
    SimLateAnswers(SimAbort& abort, SimChangeQueue& changes);
    ~SimLateAnswers();
    SimLateAnswers(const SimLateAnswers&) = delete;
    SimLateAnswers& operator=(const SimLateAnswers&) = delete;

    /// Calls `answer` on the thread after `delayMs` milliseconds.
    void Schedule(unsigned int delayMs, std::function<void()> answer);

    /// Ends the thread; answers not yet due are given only if the wait is not aborted, so abort first.
    void Stop();

private:
    using Answer = std::pair<unsigned int, std::function<void()>>;

    void Run();

    SimAbort& m_abort;
    SimChangeQueue& m_changes;

    std::mutex m_mutex;  // guards all below but the thread; a leaf
    std::condition_variable m_wake;
    std::deque<Answer> m_answers;
    bool m_stopped = false;

    std::thread m_thread;
};

#endif
