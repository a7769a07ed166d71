#ifndef SERVICE_REQUESTQUEUE_H
#define SERVICE_REQUESTQUEUE_H

#include <chrono>
#include <deque>
#include <memory>
#include <string>

#include "messages/KyTferMsg.h"

/// Requests that begin a transaction and wait until the last one's worker has ended. One thread uses it.
class RequestQueue {
public:
    using Clock = std::chrono::steady_clock;

    /// @param patience  how long a request waits at most, from when it is the first in the queue
    explicit RequestQueue(Clock::duration patience) : m_patience(patience) {}

    /// @return false, and the request stays the caller's, if too many wait already
    bool Add(std::unique_ptr<KyTferMsg>& request);

    /// Takes the first request if its time has come: if the engine is quiet, or its patience is at an end.
    /// @return null if there is none
    std::unique_ptr<KyTferMsg> TakeDue(bool quiet);

    /// Takes the first request with this transaction identifier, wherever it waits.
    /// @return null if there is none
    std::unique_ptr<KyTferMsg> TakeById(const std::string& transId);

    bool Empty() const { return m_requests.empty(); }

private:
    using Requests = std::deque<std::unique_ptr<KyTferMsg>>;
    static constexpr size_t kMostWaiting = 64;

    std::unique_ptr<KyTferMsg> Take(size_t index);

    const Clock::duration m_patience;
    Requests m_requests;
    Clock::time_point m_firstSince;
};

#endif
