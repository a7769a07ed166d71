#ifndef HOST_KYDEADLINE_H
#define HOST_KYDEADLINE_H

#include <algorithm>
#include <chrono>

/// Ends a wait of several steps at one moment of the monotonic clock.
class KyDeadline {
public:
    /// @param milliseconds  from now; 0 and less for now
    explicit KyDeadline(int milliseconds)
        : m_end(Clock::now() + std::chrono::milliseconds(std::max(milliseconds, 0))) {}

    bool Passed() const { return Clock::now() >= m_end; }

    /// The milliseconds left, rounded up: a wait of this length does not end before the deadline.
    int Remaining() const {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_end - Clock::now());
        return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
    }

private:
    using Clock = std::chrono::steady_clock;

    const Clock::time_point m_end;
};

#endif
