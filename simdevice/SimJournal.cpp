#include "simdevice/SimJournal.h"

SimJournal::SimJournal(bool keep) : m_keep(keep) {}

std::size_t SimJournal::Begin(const SimCall& call) {
    if (!m_keep) return 0;
    constexpr std::size_t mostKept = 200000;
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_calls.size() == mostKept) {
        m_calls.pop_front();
        ++m_first;
    }
    m_calls.push_back(call);
    return m_first + m_calls.size() - 1;
}

void SimJournal::End(std::size_t number, int status, const std::string& value) {
    if (!m_keep) return;
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (number < m_first) return;
    SimCall& call = m_calls[number - m_first];
    call.status = status;
    call.value = value;
    call.finished = true;
}

std::vector<SimCall> SimJournal::Calls() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return {m_calls.begin(), m_calls.end()};
}

void SimJournal::Clear() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_first += m_calls.size();
    m_calls.clear();
}
