#include "fuzz/FuzzDevice.h"

#include <fstream>
#include <stdexcept>

#include "fuzz/Fuzz.h"
#include "platform/KyNetUtils.h"

using fuzz::Require;

namespace {

constexpr int kFailure = 7;
constexpr unsigned short kDeviceId = 3;

void AppendTo(const std::string& path, size_t count) {
    std::ofstream(path, std::ios::binary | std::ios::app) << std::string(count, 'x');
}

}  // namespace

void FuzzDevice::SetTransfer(const Transfer& transfer) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_transfer = transfer;
}

void FuzzDevice::FailPoints(unsigned bits, bool throws) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_failing = bits & 0xFF;
    m_throws = throws;
}

void FuzzDevice::SetValue(unsigned value) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_value = value;
}

void FuzzDevice::Release() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_releases;
    m_held = 0;
    m_changed.notify_all();
}

void FuzzDevice::Abort() {
    Release();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_aborted = true;
}

void FuzzDevice::ExpectNoCall() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_noCall = true;
}

int FuzzDevice::Held() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_held;
}

int FuzzDevice::Access(unsigned short device) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    Require(!m_noCall, "a stopped engine leaves the proxy alone");
    Require(device == kDeviceId, "a call is for the device");
    const bool fails = (m_failing & 1) != 0;
    m_failing >>= 1;
    if (fails && m_throws) throw std::runtime_error("proxy");
    return fails ? kFailure : 0;
}

int FuzzDevice::GetMaiString(std::string& value, unsigned short device, unsigned short /*pointId*/,
                             unsigned short mmIdx, unsigned short /*idx*/, unsigned short /*uom*/,
                             short /*norm*/, unsigned int /*option*/) {
    value = mmIdx == 2 ? tal_netutils::KyNetUtils::GetMAC() : "another";
    return Access(device);
}

int FuzzDevice::GetMaiUint32(unsigned int& value, unsigned short device, unsigned short /*pointId*/,
                             unsigned short /*mmIdx*/, unsigned short /*idx*/, unsigned short /*uom*/,
                             short /*norm*/) {
    const int status = Access(device);
    const std::lock_guard<std::mutex> lock(m_mutex);
    value = m_value;
    return status;
}

int FuzzDevice::SetMaiString(const char* value, unsigned short device, unsigned short /*pointId*/,
                             unsigned short /*mmIdx*/, unsigned short /*idx*/, unsigned short /*uom*/,
                             short /*norm*/, unsigned int /*option*/, unsigned int /*timeout*/) {
    Require(value != nullptr, "a string that is written is there");
    if (std::string(value) == "SUCCESS") m_onSuccess();
    return Access(device);
}

int FuzzDevice::SetMaiUint32(unsigned int /*value*/, unsigned short device, unsigned short /*pointId*/,
                             unsigned short /*mmIdx*/, unsigned short /*idx*/, unsigned short /*uom*/,
                             short /*norm*/, unsigned int /*timeout*/) {
    return Access(device);
}

int FuzzDevice::GetMaxModuleCount(unsigned int& count, unsigned short device, unsigned short /*reportId*/) {
    count = m_search == FOUND ? 3 : 0;
    return Access(device);
}

int FuzzDevice::GetPointReportId(unsigned int& reportId, unsigned short device, unsigned short /*pointId*/) {
    reportId = 9;
    return m_search == NO_REPORT ? kFailure : Access(device);
}

FuzzDevice::Transfer FuzzDevice::Begin(unsigned short device) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    Require(!m_noCall, "a stopped engine leaves the proxy alone");
    Require(device == kDeviceId, "a transfer is for the device");
    Transfer transfer = m_transfer;
    transfer.releases = m_releases;
    return transfer;
}

/// The file at `path` grows as the transfer says; an empty path is a push, for which nothing does.
bool FuzzDevice::Transact(const Transfer& transfer, const std::string& path) {
    const bool delivers = transfer.deliver && !path.empty();
    if (delivers) AppendTo(path, transfer.size / 2);
    if (transfer.hold) {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_releases == transfer.releases) ++m_held;
        m_changed.wait(lock, [&] { return m_aborted || m_releases != transfer.releases; });
        if (m_aborted) return false;
    }
    if (delivers) AppendTo(path, transfer.size - transfer.size / 2);
    if (transfer.outcome > 1) throw std::runtime_error("transfer");
    return transfer.outcome == 0;
}

bool FuzzDevice::DoGetDevFile(unsigned short device, const std::string& /*option*/,
                              const std::string& fileName) {
    Require(("/" + fileName + "/").find("/../") == std::string::npos, "no fetch leads out of its directory");
    return Transact(Begin(device), kLanding + fileName);
}

bool FuzzDevice::DoPutDevFile(unsigned short device, const std::string& /*directory*/,
                              const std::string& /*fileName*/, const std::string& xferFileName) {
    Require(!xferFileName.empty(), "a pushed file has a name");
    return Transact(Begin(device), "");
}
