#ifndef SIMDEVICE_SIMABORT_H
#define SIMDEVICE_SIMABORT_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

/// A switch that ends every wait of a device, once and for ever, and those waits.
///
/// Any thread may call any operation.
class SimAbort {
public:
    void Trip();
    bool Tripped() const { return m_tripped; }

    /// Sleeps with `usleep`, in slices of at most 10 ms. @return false if the switch was or became tripped
    bool Sleep(std::uint64_t microseconds) const;

    /// Blocks until the switch is tripped, however long that takes.
    void WaitTripped();

private:
    std::atomic<bool> m_tripped{false};
    std::mutex m_mutex;  // makes Trip and WaitTripped meet; a leaf
    std::condition_variable m_changed;
};

#endif
