#include "simdevice/SimAbort.h"

#include <unistd.h>

#include <algorithm>

namespace {

template <typename Ended>
bool SleepUnless(Ended ended, std::uint64_t microseconds) {
    constexpr std::uint64_t longestSlice = 10000;
    while (microseconds > 0 && !ended()) {
        const std::uint64_t slice = std::min(microseconds, longestSlice);
        usleep(static_cast<useconds_t>(slice));
        microseconds -= slice;
    }
    return !ended();
}

}  // namespace

void SimAbort::Trip() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_tripped = true;
    m_changed.notify_all();
}

void SimAbort::EndCalls() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_generation;
    m_changed.notify_all();
}

bool SimAbort::Sleep(std::uint64_t microseconds) const {
    return SleepUnless([this] { return Tripped(); }, microseconds);
}

bool SimAbort::Call::Sleep(std::uint64_t microseconds) const {
    return SleepUnless([this] { return Ended(); }, microseconds);
}

void SimAbort::Call::WaitEnded() const {
    std::unique_lock<std::mutex> lock(m_abort.m_mutex);
    m_abort.m_changed.wait(lock, [this] { return Ended(); });
}
