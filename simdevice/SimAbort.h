#ifndef SIMDEVICE_SIMABORT_H
#define SIMDEVICE_SIMABORT_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

/// Ends the waits of a device: EndCalls those of the file calls under way, Trip all of them, for ever.
///
/// Any thread may call any operation.
class SimAbort {
public:
    /// A file call. It is under way from the construction of this object on.
    class Call {
    public:
        explicit Call(SimAbort& abort) : m_abort(abort), m_generation(abort.m_generation) {}

        /// True after Trip, and once EndCalls has been called since the construction.
        bool Ended() const { return m_abort.m_tripped || m_abort.m_generation != m_generation; }

        /// Sleeps as SimAbort::Sleep does. @return false if the call has ended
        bool Sleep(std::uint64_t microseconds) const;

        /// Blocks until the call has ended, however long that takes.
        void WaitEnded() const;

    private:
        SimAbort& m_abort;
        const std::uint64_t m_generation;
    };

    void Trip();
    void EndCalls();
    bool Tripped() const { return m_tripped; }

    /// Sleeps with `usleep`, in slices of at most 10 ms. @return false if Trip was called
    bool Sleep(std::uint64_t microseconds) const;

private:
    std::atomic<bool> m_tripped{false};
    std::atomic<std::uint64_t> m_generation{0};  // of calls; one higher with every EndCalls
    std::mutex m_mutex;                          // guards the changes of both for WaitEnded; a leaf
    std::condition_variable m_changed;
};

#endif
