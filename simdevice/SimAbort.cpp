#include "simdevice/SimAbort.h"

#include <unistd.h>

#include <algorithm>

void SimAbort::Trip() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_tripped = true;
    m_changed.notify_all();
}

bool SimAbort::Sleep(std::uint64_t microseconds) const {
    constexpr std::uint64_t longestSlice = 10000;
    while (microseconds > 0 && !m_tripped) {
        const std::uint64_t slice = std::min(microseconds, longestSlice);
        usleep(static_cast<useconds_t>(slice));
        microseconds -= slice;
    }
    return !m_tripped;
}

void SimAbort::WaitTripped() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_tripped.load(); });
}
