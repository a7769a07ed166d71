#ifndef SERVICE_REQUESTQUEUE_H
#define SERVICE_REQUESTQUEUE_H

#include <chrono>
#include <deque>
#include <memory>
#include <string>

#include "messages/KyTferMsg.h"

/// Requests that begin a transaction and wait until the worker of the last transaction has ended. One thread
/// uses the queue.
class RequestQueue {
public:
    using Clock = std::chrono::steady_clock;

    /// @param timeOut  longest wait of a request at the front of the queue
    explicit RequestQueue(Clock::duration timeOut) : m_timeOut(timeOut) {}

    /// Takes the request over.
    /// @return false, and the request stays the caller's, if the queue is full
    bool Add(std::unique_ptr<KyTferMsg>& request);

    /// Takes the first request if no worker runs, or if its wait has timed out.
    /// @return null if there is none
    std::unique_ptr<KyTferMsg> TakeDue(bool workerRunning);

    /// Takes the first request with this transaction identifier.
    /// @return null if there is none
    std::unique_ptr<KyTferMsg> TakeById(const std::string& transId);

    bool Empty() const { return m_requests.empty(); }

private:
    using Requests = std::deque<std::unique_ptr<KyTferMsg>>;
    static constexpr size_t kMaxRequests = 64;

    std::unique_ptr<KyTferMsg> Take(size_t index);

    const Clock::duration m_timeOut;
    Requests m_requests;
    Clock::time_point m_frontSince;  // when the first request reached the front
};

#endif
