#include "engine/KyModuleSearch.h"

#include <algorithm>

#include "engine/KyEngineTime.h"
#include "engine/KyTferClientConstants.h"
#include "platform/KyDlog.h"
#include "platform/KyNetUtils.h"

namespace ky_engine {

namespace {

constexpr char kFunction[] = "AcquireMaiMmIdx";
constexpr unsigned int kLastModule = 0xFFFF;
constexpr int kMatchesNeeded = 4;
constexpr unsigned int kPauseSeconds = 2;

}  // namespace

bool KyModuleSearch::Run() {
    try {
        return Search();
    } catch (...) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, kFunction, "%s", kOutOfMemory);
        return false;
    }
}

bool KyModuleSearch::Search() {
    const std::string mac = tal_netutils::KyNetUtils::GetMAC();
    unsigned int count = 0;
    if (!GetModuleCount(count)) return false;
    // A card that does not know its own address would find itself in the first module without a text.
    if (mac.empty()) return false;
    bool found = false;
    while (!found) {
        if (m_stop) return false;
        found = SearchModules(count, mac);
        SleepUnlessStopped(kPauseSeconds, m_stop);
    }
    return true;
}

bool KyModuleSearch::GetModuleCount(unsigned int& count) const {
    unsigned int reportId = 0;
    if (m_points.GetReport(reportId, PNT_MON_AGENT_INFO) != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, kFunction, "MonAgentInfo report is not in the device FDM.");
        return false;
    }
    if (m_points.GetModuleCount(count, reportId) != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, kFunction, "Failed to get max module count, report ID: %lu",
                        static_cast<unsigned long>(reportId));
        return false;
    }
    return true;
}

// One pass. The candidate is wider than an index while it counts: a device may claim as many modules as an index
// can number, or more, and the pass must end then too.
bool KyModuleSearch::SearchModules(unsigned int count, const std::string& mac) {
    const unsigned int last = std::min(count, kLastModule);
    for (unsigned int candidate = 1; candidate <= last && (candidate == 1 || !m_stop); ++candidate) {
        if (ConfirmModule(static_cast<unsigned short>(candidate), mac)) {
            m_mmIdx = static_cast<unsigned short>(candidate);
            return true;
        }
    }
    return false;
}

bool KyModuleSearch::ConfirmModule(unsigned short mmIdx, const std::string& mac) const {
    for (int matches = 1;; ++matches) {
        std::string agent;
        if (m_points.ReadText(agent, PNT_MON_AGENT_INFO, mmIdx) != 0 || agent != mac) return false;
        if (matches == kMatchesNeeded) return true;
        // Reads that follow each other without the pause prove nothing.
        if (!SleepUnlessStopped(kPauseSeconds, m_stop)) return false;
    }
}

}  // namespace ky_engine
