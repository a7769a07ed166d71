#ifndef BENCH_SAMPLES_H
#define BENCH_SAMPLES_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

/// Durations that were measured one by one. One thread uses an object.
class Samples {
public:
    using Clock = std::chrono::steady_clock;

    void Add(Clock::duration duration) {
        m_microseconds.push_back(std::chrono::duration<double, std::micro>(duration).count());
    }

    /// The duration, in microseconds, that `part` of all stay at or below: 0.5 for the median, 1 for the
    /// longest. 0 if nothing was measured.
    double Quantile(double part) const {
        if (m_microseconds.empty()) return 0;
        std::vector<double> sorted(m_microseconds);
        const auto rank = static_cast<std::size_t>(part * static_cast<double>(sorted.size() - 1));
        const auto found = sorted.begin() + static_cast<std::ptrdiff_t>(rank);
        std::nth_element(sorted.begin(), found, sorted.end());
        return *found;
    }

private:
    std::vector<double> m_microseconds;
};

#endif
