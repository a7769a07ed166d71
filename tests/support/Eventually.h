#ifndef SUPPORT_EVENTUALLY_H
#define SUPPORT_EVENTUALLY_H

#include <time.h>

#include <chrono>

/// Waits in real time until `predicate` holds. The stepped clock has no influence.
/// @return false if `predicate` does not hold within `deadline`
template <typename Predicate>
bool WaitUntil(Predicate predicate, std::chrono::milliseconds deadline = std::chrono::seconds(10)) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > end) return false;
        const timespec pause{0, 100'000};
        nanosleep(&pause, nullptr);
    }
    return true;
}

#endif
