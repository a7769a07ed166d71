#ifndef ENGINE_KYNEGOTIATION_H
#define ENGINE_KYNEGOTIATION_H

#include "engine/KyDevicePoints.h"
#include "engine/KyTferClientMembers.h"

namespace ky_engine {

/// Agrees with the device on a transport: Sorrel 485, or USB if the device does not answer the first point of
/// that. A step that fails is logged, and the sequence goes on.
class KyNegotiation {
public:
    /// @param members  get what the device supports
    KyNegotiation(KyDevicePoints& points, KyTferClientMembers& members)
        : m_points(points), m_members(members) {}

    /// @param xferFileSize  written to the device's file size point
    /// @return the status of that write over Sorrel 485; over USB that of the read that failed, or 0
    int Run(unsigned int xferFileSize);

private:
    int NegotiateSorrel485(unsigned int xferFileSize);
    int ProbeUsb();
    void TraceLimits() const;

    KyDevicePoints& m_points;
    KyTferClientMembers& m_members;
};

}  // namespace ky_engine

#endif
