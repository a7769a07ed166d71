#ifndef SIMDEVICE_SIMFAULTS_H
#define SIMDEVICE_SIMFAULTS_H

#include <map>
#include <mutex>
#include <utility>

#include "simdevice/SimFault.h"

/// The faults that a device has been told to show.
///
/// Any thread may call any operation; nothing blocks.
class SimFaults {
public:
    void Set(SimOperation operation, const SimFault& fault);
    SimFault Of(SimOperation operation) const;

    /// Makes accesses of a point fail; replaces what was asked for that access before.
    ///
    /// @param status  what the access returns; not 0
    /// @param times   number of accesses that fail; negative for all from now on
    /// @param skip    number of accesses that still succeed before
    void FailPoint(SimAccess access, unsigned short pointId, int status, int times, int skip);

    /// Makes every access of a point take `delayMs` milliseconds.
    void SlowPoint(SimAccess access, unsigned short pointId, unsigned int delayMs);

    /// What one access meets: its delay in milliseconds and its status, 0 if it is to succeed. Counts it.
    std::pair<unsigned int, int> TakeAccess(SimAccess access, unsigned short pointId);

    /// Forgets all faults.
    void Clear();

private:
    struct PointFault {
        int status = 0;
        int times = 0;
        int skip = 0;
        unsigned int delayMs = 0;
    };
    using PointAccess = std::pair<SimAccess, unsigned short>;

    mutable std::mutex m_mutex;  // guards all below; a leaf, no other lock is taken under it
    std::map<SimOperation, SimFault> m_operations;
    std::map<PointAccess, PointFault> m_points;
};

#endif
