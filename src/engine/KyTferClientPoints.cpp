// Point access: the engine's reads and writes of the device's points, and the search for the card's module
// index.
#include <unistd.h>

#include <algorithm>

#include "engine/KyTferClient.h"
#include "engine/KyTferClientConstants.h"
#include "platform/KyDlog.h"
#include "platform/KyNetUtils.h"

using namespace ky_engine;

namespace {

// Every point is addressed with these.
constexpr unsigned short kIdx = 0;
constexpr unsigned short kUom = 0;
constexpr short kNorm = 0;
constexpr unsigned int kOption = 0;

constexpr unsigned int kLastModule = 0xFFFF;
constexpr int kMatchesNeeded = 4;
constexpr unsigned int kSearchPauseSeconds = 2;

constexpr unsigned int kStepsPerSecond = 4;
constexpr useconds_t kStepMicroseconds = 250000;

// A proxy is the card's own code: what it throws is a failed operation here, not the end of the process.
template <typename Operation>
int CallProxy(KyPldProxy* proxy, Operation operation) {
    if (proxy == nullptr) return kNoProxy;
    try {
        return operation(*proxy);
    } catch (...) {
        return kProxyThrew;
    }
}

}  // namespace

int KyTferClient::ReadPoint(unsigned int& value, unsigned short pointId) {
    return CallProxy(m_pldProxy, [&](KyPldProxy& proxy) {
        return proxy.GetMaiUint32(value, m_deviceId, pointId, m_maiMmIdx, kIdx, kUom, kNorm);
    });
}

// A failed read leaves the member as it was, whatever the proxy has put into its output.
int KyTferClient::ReadPoint(std::atomic<unsigned int>& member, unsigned short pointId) {
    unsigned int value = 0;
    const int status = ReadPoint(value, pointId);
    if (status == 0) member = value;
    return status;
}

int KyTferClient::WritePoint(unsigned int value, unsigned short pointId) {
    return CallProxy(m_pldProxy, [&](KyPldProxy& proxy) {
        return proxy.SetMaiUint32(value, m_deviceId, pointId, m_maiMmIdx, kIdx, kUom, kNorm,
                                  kUint32WriteTimeout);
    });
}

int KyTferClient::WriteString(const char* value, unsigned short pointId) {
    return CallProxy(m_pldProxy, [&](KyPldProxy& proxy) {
        return proxy.SetMaiString(value, m_deviceId, pointId, m_maiMmIdx, kIdx, kUom, kNorm, kOption,
                                  kStringWriteTimeout);
    });
}

int KyTferClient::ReadString(std::string& value, unsigned short pointId, unsigned short mmIdx) {
    return CallProxy(m_pldProxy, [&](KyPldProxy& proxy) {
        std::string read;
        const int status = proxy.GetMaiString(read, m_deviceId, pointId, mmIdx, kIdx, kUom, kNorm, kOption);
        if (status == 0) value.swap(read);
        return status;
    });
}

void KyTferClient::FetchThroughProxy(const std::string& name) {
    CallProxy(m_pldProxy,
              [&](KyPldProxy& proxy) { return proxy.GetDevFile(m_deviceId, std::string(), name) ? 0 : 1; });
}

bool KyTferClient::PushThroughProxy(const std::string& directory, const std::string& origName,
                                    const std::string& xferName) {
    return CallProxy(m_pldProxy, [&](KyPldProxy& proxy) {
               return proxy.PutDevFile(m_deviceId, directory, origName, xferName) ? 0 : 1;
           }) == 0;
}

int KyTferClient::MaiStringSend(const std::string& value, unsigned short pointId) {
    const KyEngineThreads::Call call(m_threads);
    return call ? SendString(value, pointId) : kStopped;
}

int KyTferClient::SendString(const std::string& value, unsigned short pointId) {
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "MaiStringSend", "Send value(%s)", value.c_str());
    WriteString("", pointId);
    const int status = WriteString(value.c_str(), pointId);
    if (status != 0) {
        __dlog_printfex(
            KY_DLOG_ERROR, kSource, "MaiStringSend",
            "Could not set string(%s) pntId(%d) mmIdx(%d) idx(%d) uom(%d) norm(%d) timeout(%d) on "
            "device(%d). Status(%d)",
            value.c_str(), pointId, m_maiMmIdx.load(), kIdx, kUom, kNorm,
            static_cast<int>(kStringWriteTimeout), m_deviceId.load(), status);
    }
    return status;
}

int KyTferClient::MaiStringGet(std::string& value, unsigned short pointId) {
    const KyEngineThreads::Call call(m_threads);
    return call ? ReadString(value, pointId, m_maiMmIdx) : kStopped;
}

bool KyTferClient::GetModuleCount(unsigned int& count) {
    unsigned int reportId = 0;
    int status = CallProxy(m_pldProxy, [&](KyPldProxy& proxy) {
        return proxy.GetPointReportId(reportId, m_deviceId, PNT_MON_AGENT_INFO);
    });
    if (status != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "AcquireMaiMmIdx",
                        "MonAgentInfo report is not in the device FDM.");
        return false;
    }
    status = CallProxy(m_pldProxy, [&](KyPldProxy& proxy) {
        return proxy.GetMaxModuleCount(count, m_deviceId, static_cast<unsigned short>(reportId & 0xFFFF));
    });
    if (status != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "AcquireMaiMmIdx",
                        "Failed to get max module count, report ID: %lu",
                        static_cast<unsigned long>(reportId));
        return false;
    }
    return true;
}

bool KyTferClient::AcquireMaiMmIdx() {
    const KyEngineThreads::Call call(m_threads);
    return call && FindModule();
}

bool KyTferClient::FindModule() {
    try {
        const std::string mac = tal_netutils::KyNetUtils::GetMAC();
        unsigned int count = 0;
        if (!GetModuleCount(count)) return false;
        // A card that does not know its own address would find itself in the first module without a text.
        if (mac.empty()) return false;
        bool found = false;
        while (!found) {
            if (m_stopRequested) return false;
            found = SearchModules(count, mac);
            SleepUnlessStopped(kSearchPauseSeconds, m_stopRequested);
        }
        return true;
    } catch (...) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "AcquireMaiMmIdx", "%s", kOutOfMemory);
        return false;
    }
}

// One pass over the device's modules. The candidate is wider than an index while it counts: a device may
// claim as many modules as an index can number, or more, and the pass must end then too.
bool KyTferClient::SearchModules(unsigned int count, const std::string& mac) {
    const unsigned int last = std::min(count, kLastModule);
    for (unsigned int candidate = 1; candidate <= last && (candidate == 1 || !m_stopRequested); ++candidate) {
        if (ConfirmModule(static_cast<unsigned short>(candidate), mac)) {
            m_maiMmIdx = static_cast<unsigned short>(candidate);
            return true;
        }
    }
    return false;
}

bool KyTferClient::ConfirmModule(unsigned short mmIdx, const std::string& mac) {
    for (int matches = 1;; ++matches) {
        std::string agent;
        if (ReadString(agent, PNT_MON_AGENT_INFO, mmIdx) != 0 || agent != mac) return false;
        if (matches == kMatchesNeeded) return true;
        // Reads that follow each other without the pause prove nothing.
        if (!SleepUnlessStopped(kSearchPauseSeconds, m_stopRequested)) return false;
    }
}

bool KyTferClient::SleepUnlessStopped(unsigned int seconds, std::atomic<bool>& stop) {
    if (stop) return false;
    const unsigned long long steps = static_cast<unsigned long long>(seconds) * kStepsPerSecond;
    for (unsigned long long i = 0; i < steps; ++i) {
        usleep(kStepMicroseconds);
        if (stop) return false;
    }
    return true;
}
