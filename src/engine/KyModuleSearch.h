#ifndef ENGINE_KYMODULESEARCH_H
#define ENGINE_KYMODULESEARCH_H

#include <atomic>
#include <string>

#include "engine/KyDevicePoints.h"

namespace ky_engine {

/// Finds the card among the device's modules.
class KyModuleSearch {
public:
    /// @param mmIdx  gets the index; belongs to the engine, like `stop`
    /// @param stop   ends the search
    KyModuleSearch(const KyDevicePoints& points, std::atomic<unsigned short>& mmIdx,
                   const std::atomic<bool>& stop)
        : m_points(points), m_mmIdx(mmIdx), m_stop(stop) {}

    /// As KyTferClient::AcquireMaiMmIdx.
    bool Run();

private:
    bool Search();
    bool GetModuleCount(unsigned int& count) const;
    bool SearchModules(unsigned int count, const std::string& mac);
    bool ConfirmModule(unsigned short mmIdx, const std::string& mac) const;

    const KyDevicePoints& m_points;
    std::atomic<unsigned short>& m_mmIdx;
    const std::atomic<bool>& m_stop;
};

}  // namespace ky_engine

#endif
