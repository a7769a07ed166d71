#include "engine/KyModuleSearch.h"

#include <algorithm>
#include <string>

#include "engine/KyEngineTime.h"
#include "engine/KyTferClientConstants.h"
#include "platform/KyDlog.h"
#include "platform/KyNetUtils.h"

namespace ky_engine {

namespace {

constexpr char kFunction[] = "AcquireMaiMmIdx";
constexpr unsigned int kMaxModules = 0xFFFF;
constexpr int kMatchesNeeded = 4;
constexpr unsigned int kPauseSeconds = 2;

bool GetModuleCount(const KyDeviceAccess& device, unsigned int& count) {
    unsigned int reportId = 0;
    if (device.GetReport(reportId, PNT_MON_AGENT_INFO) != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, kFunction, "MonAgentInfo report is not in the device FDM.");
        return false;
    }
    if (device.GetModuleCount(count, reportId) != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, kFunction, "Failed to get max module count, report ID: %lu",
                        static_cast<unsigned long>(reportId));
        return false;
    }
    return true;
}

bool ConfirmModule(const KyDeviceAccess& device, unsigned short mmIdx, const std::string& mac,
                   const std::atomic<bool>& stop) {
    for (int matches = 1;; ++matches) {
        std::string agent;
        if (device.ReadText(agent, PNT_MON_AGENT_INFO, mmIdx) != 0 || agent != mac) return false;
        if (matches == kMatchesNeeded) return true;
        // A match counts only after the whole pause.
        if (!SleepUnlessStopped(kPauseSeconds, stop)) return false;
    }
}

// Makes one pass. `candidate` is wider than an index, so that the loop ends at 65535 modules too.
// @return the index; 0 for none
unsigned short SearchModules(const KyDeviceAccess& device, unsigned int count, const std::string& mac,
                             const std::atomic<bool>& stop) {
    const unsigned int last = std::min(count, kMaxModules);
    for (unsigned int candidate = 1; candidate <= last && (candidate == 1 || !stop); ++candidate) {
        const auto mmIdx = static_cast<unsigned short>(candidate);
        if (ConfirmModule(device, mmIdx, mac, stop)) return mmIdx;
    }
    return 0;
}

}  // namespace

bool FindModule(const KyDeviceAccess& device, std::atomic<unsigned short>& mmIdx,
                const std::atomic<bool>& stop) try {
    const std::string mac = tal_netutils::KyNetUtils::GetMAC();
    unsigned int count = 0;
    // An empty address would match the first module with an empty text.
    if (!GetModuleCount(device, count) || mac.empty()) return false;
    unsigned short found = 0;
    while (found == 0) {
        if (stop) return false;
        found = SearchModules(device, count, mac, stop);
        if (found != 0) mmIdx = found;
        SleepUnlessStopped(kPauseSeconds, stop);
    }
    return true;
} catch (...) {
    __dlog_printfex(KY_DLOG_ERROR, kSource, kFunction, "%s", kOutOfMemory);
    return false;
}

}  // namespace ky_engine
