#include "service/RequestQueue.h"

bool RequestQueue::Add(std::unique_ptr<KyTferMsg>& request) {
    if (m_requests.size() >= kMostWaiting) return false;
    if (m_requests.empty()) m_firstSince = Clock::now();
    m_requests.push_back(std::move(request));
    return true;
}

std::unique_ptr<KyTferMsg> RequestQueue::TakeDue(bool quiet) {
    if (m_requests.empty() || (!quiet && Clock::now() - m_firstSince < m_patience)) return nullptr;
    std::unique_ptr<KyTferMsg> request = std::move(m_requests.front());
    m_requests.pop_front();
    m_firstSince = Clock::now();
    return request;
}
