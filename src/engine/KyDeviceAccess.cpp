#include "engine/KyDeviceAccess.h"

#include <exception>
#include <functional>
#include <string_view>

#include "engine/KyEngineTime.h"
#include "engine/KyTferClientConstants.h"
#include "platform/KyDlog.h"

namespace ky_engine {

namespace {

// The same for every point.
constexpr unsigned short kIdx = 0;
constexpr unsigned short kUom = 0;
constexpr short kNorm = 0;
constexpr unsigned int kOption = 0;

constexpr long long kEchoSeconds = 2;

void LogThrow(const char* operation, const char* what) {
    __dlog_printfex(KY_DLOG_ERROR, kSource, operation, "The device proxy has thrown an exception: %s", what);
}

// An exception of the proxy becomes a failed operation.
template <typename Operation>
int CallProxy(KyPldProxy* proxy, const char* name, Operation operation) {
    if (proxy == nullptr) return kNoProxy;
    try {
        return operation(*proxy);
    } catch (const std::exception& error) {
        LogThrow(name, error.what());
    } catch (...) {
        LogThrow(name, "unknown");
    }
    return kProxyThrew;
}

std::size_t HashOf(unsigned short pointId, std::string_view value) {
    return std::hash<std::string_view>()(value) * 31 + pointId;
}

// Calls AbortTransfer only if the platform's KyPldProxy declares it.
template <typename Proxy>
auto Abort(Proxy& proxy, unsigned short deviceId, int) -> decltype(proxy.AbortTransfer(deviceId)) {
    proxy.AbortTransfer(deviceId);
}
template <typename Proxy>
void Abort(Proxy&, unsigned short, long) {}

}  // namespace

KyDeviceAccess::KyDeviceAccess(const std::atomic<KyPldProxy*>& proxy,
                               const std::atomic<unsigned short>& deviceId,
                               const std::atomic<unsigned short>& mmIdx)
    : m_proxy(proxy), m_deviceId(deviceId), m_mmIdx(mmIdx) {}

int KyDeviceAccess::Read(unsigned int& value, unsigned short pointId) const {
    return CallProxy(m_proxy, "GetMaiUint32", [&](KyPldProxy& proxy) {
        unsigned int read = 0;
        const int status = proxy.GetMaiUint32(read, m_deviceId, pointId, m_mmIdx, kIdx, kUom, kNorm);
        if (status == 0) value = read;
        return status;
    });
}

int KyDeviceAccess::Write(unsigned int value, unsigned short pointId) {
    ExpectEcho(pointId, std::to_string(value));
    const int status = CallProxy(m_proxy, "SetMaiUint32", [&](KyPldProxy& proxy) {
        return proxy.SetMaiUint32(value, m_deviceId, pointId, m_mmIdx, kIdx, kUom, kNorm,
                                  kUint32WriteTimeout);
    });
    UpdateEcho(pointId, std::to_string(value), status);
    return status;
}

int KyDeviceAccess::ReadText(std::string& value, unsigned short pointId, unsigned short mmIdx) const {
    return CallProxy(m_proxy, "GetMaiString", [&](KyPldProxy& proxy) {
        std::string read;
        const int status = proxy.GetMaiString(read, m_deviceId, pointId, mmIdx, kIdx, kUom, kNorm, kOption);
        if (status == 0) value.swap(read);
        return status;
    });
}

int KyDeviceAccess::WriteText(const char* value, unsigned short pointId) {
    return CallProxy(m_proxy, "SetMaiString", [&](KyPldProxy& proxy) {
        return proxy.SetMaiString(value, m_deviceId, pointId, m_mmIdx, kIdx, kUom, kNorm, kOption,
                                  kStringWriteTimeout);
    });
}

int KyDeviceAccess::Send(const std::string& value, unsigned short pointId) {
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "MaiStringSend", "Send value(%s)", value.c_str());
    WriteText("", pointId);
    ExpectEcho(pointId, value);
    const int status = WriteText(value.c_str(), pointId);
    UpdateEcho(pointId, value, status);
    if (status != 0) {
        __dlog_printfex(
            KY_DLOG_ERROR, kSource, "MaiStringSend",
            "Could not set string(%s) pntId(%d) mmIdx(%d) idx(%d) uom(%d) norm(%d) timeout(%d) on "
            "device(%d). Status(%d)",
            value.c_str(), pointId, m_mmIdx.load(), kIdx, kUom, kNorm, static_cast<int>(kStringWriteTimeout),
            m_deviceId.load(), status);
    }
    return status;
}

int KyDeviceAccess::GetReport(unsigned int& reportId, unsigned short pointId) const {
    return CallProxy(m_proxy, "GetPointReportId", [&](KyPldProxy& proxy) {
        return proxy.GetPointReportId(reportId, m_deviceId, pointId);
    });
}

int KyDeviceAccess::GetModuleCount(unsigned int& count, unsigned int reportId) const {
    return CallProxy(m_proxy, "GetMaxModuleCount", [&](KyPldProxy& proxy) {
        return proxy.GetMaxModuleCount(count, m_deviceId, static_cast<unsigned short>(reportId & 0xFFFF));
    });
}

void KyDeviceAccess::FetchFile(const std::string& name) const {
    CallProxy(m_proxy, "GetDevFile",
              [&](KyPldProxy& proxy) { return proxy.GetDevFile(m_deviceId, std::string(), name) ? 0 : 1; });
}

bool KyDeviceAccess::PushFile(const std::string& directory, const std::string& name,
                              const std::string& transferName) const {
    return CallProxy(m_proxy, "PutDevFile", [&](KyPldProxy& proxy) {
               return proxy.PutDevFile(m_deviceId, directory, name, transferName) ? 0 : 1;
           }) == 0;
}

void KyDeviceAccess::AbortTransfer() const {
    CallProxy(m_proxy, "AbortTransfer", [&](KyPldProxy& proxy) {
        Abort(proxy, m_deviceId, 0);
        return 0;
    });
}

void KyDeviceAccess::ExpectEcho(unsigned short pointId, const std::string& value) {
    const std::lock_guard<std::mutex> lock(m_ownWritesMutex);
    m_ownWrites[m_nextOwnWrite++ % m_ownWrites.size()] = {HashOf(pointId, value),
                                                          WallClockSeconds() + kEchoSeconds};
}

// Restarts the echo's time when the write returns: a write may take longer than that. A failed write has no echo.
void KyDeviceAccess::UpdateEcho(unsigned short pointId, const std::string& value, int status) {
    const std::size_t hash = HashOf(pointId, value);
    const long long expires = WallClockSeconds() + kEchoSeconds;
    const std::lock_guard<std::mutex> lock(m_ownWritesMutex);
    for (OwnWrite& write : m_ownWrites) {
        if (write.hash == hash) write.expires = status == 0 ? expires : 0;
    }
}

bool KyDeviceAccess::ConsumeEcho(unsigned short pointId, const std::string& value) {
    const std::size_t hash = HashOf(pointId, value);
    const long long now = WallClockSeconds();
    const std::lock_guard<std::mutex> lock(m_ownWritesMutex);
    for (OwnWrite& write : m_ownWrites) {
        if (write.hash != hash || write.expires < now) continue;
        write.hash = 0;
        return true;
    }
    return false;
}

}  // namespace ky_engine
