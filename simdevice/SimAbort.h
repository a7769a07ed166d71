#ifndef SIMDEVICE_SIMABORT_H
#define SIMDEVICE_SIMABORT_H

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

/// Ends the waits inside a simulated device. EndCalls ends the running file calls; Trip ends all waits, and makes later
/// waits end at once.
///
/// Any thread may call any operation.
class SimAbort {
public:
    /// A running file call. It begins with the construction of this object.
    class Call {
    public:
        explicit Call(SimAbort& abort)
            : m_abort(abort), m_ended(abort.m_endedCalls), m_released(abort.m_releasedCalls) {}

        /// True after Trip, and after an EndCalls since the construction.
        bool Ended() const { return m_abort.m_tripped || m_abort.m_endedCalls != m_ended; }

        /// Sleeps as SimAbort::Sleep does. @return false if the call has ended
        bool Sleep(std::uint64_t microseconds) const {
            return SleepUnless([this] { return Ended(); }, microseconds);
        }

        /// Blocks without a limit until the call has ended. Returns after a ReleaseCalls since the
        /// construction, too.
        void Hang() const {
            std::unique_lock<std::mutex> lock(m_abort.m_mutex);
            const auto over = [this] { return Ended() || m_abort.m_releasedCalls != m_released; };
            if (!over()) ++m_abort.m_hanging;
            m_abort.m_changed.wait(lock, over);
        }

    private:
        SimAbort& m_abort;
        const std::uint64_t m_ended;
        const std::uint64_t m_released;
    };

    void Trip() {
        Wake([this] { m_tripped = true; });
    }
    void EndCalls() {
        Wake([this] { ++m_endedCalls; });
    }
    /// Lets the hanging calls go on.
    void ReleaseCalls() {
        Wake([this] { ++m_releasedCalls; });
    }

    bool Tripped() const { return m_tripped; }

    /// Number of calls that hang now.
    unsigned int HangingCalls() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_hanging;
    }

    /// Sleeps with `usleep`, in slices of at most 10 ms. @return false after Trip
    bool Sleep(std::uint64_t microseconds) const {
        return SleepUnless([this] { return Tripped(); }, microseconds);
    }

private:
    template <typename Ended>
    static bool SleepUnless(Ended ended, std::uint64_t microseconds) {
        constexpr std::uint64_t kLongestSlice = 10000;
        while (microseconds > 0 && !ended()) {
            const std::uint64_t slice = std::min(microseconds, kLongestSlice);
            usleep(static_cast<useconds_t>(slice));
            microseconds -= slice;
        }
        return !ended();
    }

    template <typename Change>
    void Wake(Change change) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        change();
        m_hanging = 0;
        m_changed.notify_all();
    }

    std::atomic<bool> m_tripped{false};
    std::atomic<std::uint64_t> m_endedCalls{0};     // calls of EndCalls
    std::atomic<std::uint64_t> m_releasedCalls{0};  // calls of ReleaseCalls
    mutable std::mutex m_mutex;                     // guards m_hanging and the changes of the others; a leaf
    std::condition_variable m_changed;
    unsigned int m_hanging = 0;
};

#endif
