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

    /// Appends the request and takes ownership of it.
    /// @return false if the queue is full; the caller then still owns the request
    bool Add(std::unique_ptr<KyTferMsg>& request);

    /// Removes and returns the first request if no worker runs, or if the request has waited at the front for the
    /// time-out.
    /// @return null if there is no such request
    std::unique_ptr<KyTferMsg> TakeDue(bool workerRunning);

    /// Removes and returns the first request with this transaction identifier.
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
