#include "simdevice/SimChanges.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>
#include <utility>
#include <vector>

#include "simdevice/SimPoints.h"

namespace {

template <typename Number>
void AppendNumber(std::vector<unsigned char>& bytes, Number number) {
    unsigned char raw[sizeof number];
    std::memcpy(raw, &number, sizeof number);
    bytes.insert(bytes.end(), raw, raw + sizeof number);
}

// Appends the value as it is reported. @return length in 16-bit units, 0 for numbers
unsigned short AppendValue(std::vector<unsigned char>& bytes, const SimChange& change) {
    if (const unsigned int* number = std::get_if<unsigned int>(&change.value)) {
        if (change.pointId == sim_point::DMP_SUPPORTED)
            AppendNumber(bytes, static_cast<unsigned short>(*number));
        else
            AppendNumber(bytes, *number);
        return 0;
    }
    const std::string& text = std::get<std::string>(change.value);
    const std::size_t length = std::min<std::size_t>(text.size(), 0xFFFF);
    for (std::size_t i = 0; i < length; ++i)
        AppendNumber(bytes, static_cast<unsigned short>(static_cast<unsigned char>(text[i])));
    return static_cast<unsigned short>(length);
}

// Varies the alignment of the value. The allocation ends at the value so that sanitizers catch overreads.
void Report(const SimChangeQueue::Listener& listener, const SimChange& change, std::size_t offset) {
    std::vector<unsigned char> bytes(offset);
    const unsigned short length = AppendValue(bytes, change);
    const std::vector<unsigned char> block(bytes);
    KyValChgInfo info = {};
    info.pntId = change.pointId;
    info.mmIdx = change.mmIdx;
    info.valLength = length;
    info.value = block.data() + offset;
    listener(info);
}

}  // namespace

SimChangeQueue::SimChangeQueue(bool manual) : m_manual(manual) {
    if (manual) {
        m_event = KyFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
        if (!m_event) throw std::system_error(errno, std::generic_category());
    } else {
        m_thread = std::thread(&SimChangeQueue::Run, this);
    }
}

SimChangeQueue::~SimChangeQueue() {
    Stop();
}

void SimChangeQueue::SetListener(Listener listener) {
    auto shared = listener ? std::make_shared<const Listener>(std::move(listener)) : nullptr;
    std::unique_lock<std::mutex> lock(m_mutex);
    m_listener.swap(shared);
    if (m_deliverer == std::this_thread::get_id()) return;
    // Waits for the running call only: the next ones may follow without a gap.
    m_changed.wait(lock,
                   [this, begun = m_calls] { return m_deliverer == std::thread::id() || m_calls != begun; });
}

void SimChangeQueue::SetPaused(bool paused) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_paused = paused;
    UpdateEvent();
    m_changed.notify_all();
}

void SimChangeQueue::Post(SimChange change) {
    constexpr std::size_t kMostWaiting = 65536;
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_stopped) return;
    if (m_waiting.size() == kMostWaiting) m_waiting.pop_front();
    m_waiting.push_back(std::move(change));
    UpdateEvent();
    m_changed.notify_all();
}

void SimChangeQueue::ExpectAnswer() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_expected;
}

void SimChangeQueue::AnswerGiven() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    --m_expected;
    m_changed.notify_all();
}

bool SimChangeQueue::WaitIdle(unsigned int milliseconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_until(lock, end, [this] {
        return m_waiting.empty() && m_expected == 0 && m_deliverer == std::thread::id();
    });
}

bool SimChangeQueue::InListener() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_deliverer == std::this_thread::get_id();
}

std::size_t SimChangeQueue::DeliverPending() {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_manual || m_deliverer == std::this_thread::get_id()) return 0;
    m_changed.wait(lock, [this] { return m_deliverer == std::thread::id(); });
    const std::size_t pending = m_waiting.size();
    std::size_t count = 0;
    while (count < pending && Ready()) {
        DeliverFront(lock);
        ++count;
    }
    return count;
}

void SimChangeQueue::Stop() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
        m_waiting.clear();
        m_changed.notify_all();
    }
    if (m_thread.joinable()) m_thread.join();
}

void SimChangeQueue::Run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [this] { return m_stopped || Ready(); });
        if (m_stopped) return;
        DeliverFront(lock);
    }
}

void SimChangeQueue::DeliverFront(std::unique_lock<std::mutex>& lock) {
    const SimChange change = std::move(m_waiting.front());
    m_waiting.pop_front();
    UpdateEvent();
    const std::shared_ptr<const Listener> listener = m_listener;
    const std::size_t offset = 1 + m_calls++ % 4;
    m_deliverer = std::this_thread::get_id();
    lock.unlock();
    if (listener) Report(*listener, change, offset);
    lock.lock();
    m_deliverer = std::thread::id();
    m_changed.notify_all();
}

void SimChangeQueue::UpdateEvent() {
    if (!m_manual || m_signalled == Ready()) return;
    m_signalled = Ready();
    eventfd_t count = 0;
    if (m_signalled)
        eventfd_write(m_event.Get(), 1);
    else
        eventfd_read(m_event.Get(), &count);
}

void SimLateAnswers::Schedule(unsigned int delayMs, std::function<void()> answer) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_running) {
        Stop();  // does not block: the thread is past its last use of the mutex
        m_thread = std::thread(&SimLateAnswers::Run, this);
        m_running = true;
    }
    m_answers.emplace_back(delayMs, std::move(answer));
    m_changes.ExpectAnswer();
}

void SimLateAnswers::Stop() {
    if (m_thread.joinable()) m_thread.join();
}

void SimLateAnswers::Run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_answers.empty()) {
        const Answer answer = std::move(m_answers.front());
        m_answers.pop_front();
        lock.unlock();
        if (m_abort.Sleep(std::uint64_t{answer.first} * 1000)) answer.second();
        m_changes.AnswerGiven();
        lock.lock();
    }
    m_running = false;
}
