#include "service/RequestQueue.h"

#include <algorithm>

bool RequestQueue::Add(std::unique_ptr<KyTferMsg>& request) {
    if (m_requests.size() >= kMaxRequests) return false;
    if (m_requests.empty()) m_frontSince = Clock::now();
    m_requests.push_back(std::move(request));
    return true;
}

std::unique_ptr<KyTferMsg> RequestQueue::TakeDue(bool workerRunning) {
    if (m_requests.empty() || (workerRunning && Clock::now() - m_frontSince < m_timeOut)) return nullptr;
    return Take(0);
}

std::unique_ptr<KyTferMsg> RequestQueue::TakeById(const std::string& transId) {
    const auto found = std::find_if(m_requests.begin(), m_requests.end(),
                                    [&](const auto& request) { return request->GetTransId() == transId; });
    return found == m_requests.end() ? nullptr : Take(static_cast<size_t>(found - m_requests.begin()));
}

std::unique_ptr<KyTferMsg> RequestQueue::Take(size_t index) {
    if (index == 0) m_frontSince = Clock::now();
    const auto position = m_requests.begin() + static_cast<Requests::difference_type>(index);
    std::unique_ptr<KyTferMsg> request = std::move(*position);
    m_requests.erase(position);
    return request;
}
