#include "simdevice/SimLateAnswers.h"

SimLateAnswers::SimLateAnswers(SimAbort& abort, SimChangeQueue& changes)
    : m_abort(abort), m_changes(changes), m_thread(&SimLateAnswers::Run, this) {}

SimLateAnswers::~SimLateAnswers() {
    Stop();
}

void SimLateAnswers::Schedule(unsigned int delayMs, std::function<void()> answer) {
    m_changes.ExpectAnswer();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_answers.emplace_back(delayMs, std::move(answer));
    m_wake.notify_one();
}

void SimLateAnswers::Stop() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
        m_wake.notify_one();
    }
    if (m_thread.joinable()) m_thread.join();
}

void SimLateAnswers::Run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [this] { return m_stopped || !m_answers.empty(); });
        if (m_answers.empty()) return;
        const Answer answer = std::move(m_answers.front());
        m_answers.pop_front();
        lock.unlock();
        if (m_abort.Sleep(std::uint64_t{answer.first} * 1000)) answer.second();
        m_changes.AnswerGiven();
        lock.lock();
    }
}
