#include "simdevice/SimDevice.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <limits>
#include <utility>

#include "platform/KyNetUtils.h"

namespace {

// The upper half is not 0: the card has to use the lower 16 bits only.
constexpr unsigned int kMonAgentReport = 0x10065;

unsigned int AnnouncedSize(std::uint64_t size, long long delta) {
    constexpr long long kMost = std::numeric_limits<unsigned int>::max();
    const long long real = size > static_cast<std::uint64_t>(kMost) ? kMost : static_cast<long long>(size);
    return static_cast<unsigned int>(std::clamp(real + std::clamp(delta, -kMost, kMost), 0LL, kMost));
}

}  // namespace

SimDevice::SimDevice(const SimDeviceConfig& config)
    : m_config(config),
      m_changes(config.manualDelivery),
      m_points(config, m_changes),
      m_files(config.directory),
      m_late(m_abort, m_changes) {}

// The threads may be inside operations of this object: they are joined before its members are destroyed.
SimDevice::~SimDevice() {
    m_abort.Trip();
    m_late.Stop();
    m_changes.Stop();
}

void SimDevice::ChangeString(unsigned short pointId, const std::string& text, unsigned short mmIdx) {
    m_points.Change(pointId, IndexOr(mmIdx), text);
}

void SimDevice::ChangeUint32(unsigned short pointId, unsigned int value) {
    m_points.Change(pointId, m_config.cardIndex, value);
}

void SimDevice::ChangeDmp(unsigned short value, unsigned short mmIdx) {
    const unsigned short index = IndexOr(mmIdx);
    if (index == m_config.cardIndex)
        m_points.Change(sim_point::DMP_SUPPORTED, index, unsigned{value});
    else
        m_changes.Post({sim_point::DMP_SUPPORTED, index, unsigned{value}});
}

std::string SimDevice::GetString(unsigned short pointId, unsigned short mmIdx) const {
    std::string value;
    m_points.Read(pointId, IndexOr(mmIdx), value);
    return value;
}

int SimDevice::GetMaiString(std::string& value, unsigned short device, unsigned short pointId,
                            unsigned short mmIdx, unsigned short idx, unsigned short uom, short norm,
                            unsigned int option) {
    return Guarded(int{SIM_OUT_OF_MEMORY}, [&] {
        const bool plain = idx == 0 && uom == 0 && norm == 0 && option == 0;
        const int status = Admit(SimAccess::READ, device, pointId, plain);
        return status == SIM_OK ? m_points.Read(pointId, mmIdx, value) : status;
    });
}

int SimDevice::GetMaiUint32(unsigned int& value, unsigned short device, unsigned short pointId,
                            unsigned short mmIdx, unsigned short idx, unsigned short uom, short norm) {
    return Guarded(int{SIM_OUT_OF_MEMORY}, [&] {
        const int status = Admit(SimAccess::READ, device, pointId, idx == 0 && uom == 0 && norm == 0);
        return status == SIM_OK ? m_points.Read(pointId, mmIdx, value) : status;
    });
}

int SimDevice::SetMaiString(const char* value, unsigned short device, unsigned short pointId,
                            unsigned short mmIdx, unsigned short idx, unsigned short uom, short norm,
                            unsigned int option, unsigned int /*timeout*/) {
    if (value == nullptr) return SIM_BAD_VALUE;
    return Guarded(int{SIM_OUT_OF_MEMORY}, [&] {
        const std::string text = value;
        const bool plain = idx == 0 && uom == 0 && norm == 0 && option == 0;
        int status = Admit(SimAccess::WRITE, device, pointId, plain);
        if (status == SIM_OK) status = m_points.Write(pointId, mmIdx, text);
        if (status == SIM_OK && pointId == sim_point::CLIENT_FILE_REQ) HandleRequest(text);
        return status;
    });
}

int SimDevice::SetMaiUint32(unsigned int value, unsigned short device, unsigned short pointId,
                            unsigned short mmIdx, unsigned short idx, unsigned short uom, short norm,
                            unsigned int /*timeout*/) {
    return Guarded(int{SIM_OUT_OF_MEMORY}, [&] {
        const int status = Admit(SimAccess::WRITE, device, pointId, idx == 0 && uom == 0 && norm == 0);
        return status == SIM_OK ? m_points.Write(pointId, mmIdx, value) : status;
    });
}

int SimDevice::GetMaxModuleCount(unsigned int& count, unsigned short device, unsigned short reportId) {
    return Guarded(int{SIM_OUT_OF_MEMORY}, [&] {
        if (reportId != static_cast<unsigned short>(kMonAgentReport)) return int{SIM_NO_POINT};
        const int status = Admit(SimAccess::MODULE_COUNT, device, sim_point::MON_AGENT_INFO, true);
        if (status == SIM_OK) count = m_config.modules;
        return status;
    });
}

int SimDevice::GetPointReportId(unsigned int& reportId, unsigned short device, unsigned short pointId) {
    return Guarded(int{SIM_OUT_OF_MEMORY}, [&] {
        if (pointId != sim_point::MON_AGENT_INFO) return int{SIM_NO_POINT};
        const int status = Admit(SimAccess::REPORT_ID, device, pointId, true);
        if (status == SIM_OK) reportId = kMonAgentReport;
        return status;
    });
}

void SimDevice::AbortTransfer(unsigned short device) {
    if (device == m_config.deviceId) m_abort.EndCalls();
}

bool SimDevice::DoGetDevFile(unsigned short device, const std::string&, const std::string& fileName) {
    const SimAbort::Call call(m_abort);
    return Guarded(false, [&] {
        const bool listing = m_files.IsListing(fileName);
        const SimFault fault = m_faults.Of(listing ? SimOperation::DIRECTORY : SimOperation::FETCH);
        return AdmitTransfer(device, fault, call) && (fault.noFile || Deliver(fileName, fault, call));
    });
}

bool SimDevice::DoPutDevFile(unsigned short device, const std::string& directory, const std::string& fileName,
                             const std::string& xferFileName) {
    const SimAbort::Call call(m_abort);
    return Guarded(false, [&] {
        const SimFault fault = m_faults.Of(SimOperation::PUSH);
        call.Sleep(std::uint64_t{fault.delayMs} * 1000);
        return AdmitTransfer(device, fault, call) &&
               (fault.noFile || Accept(directory + fileName, xferFileName, fault, call));
    });
}

// Runs a call of the card, and turns exceptions into `failure`.
template <typename Result, typename Work>
Result SimDevice::Guarded(Result failure, Work work) {
    try {
        return work();
    } catch (const std::exception&) {
        return failure;
    }
}

int SimDevice::Admit(SimAccess access, unsigned short device, unsigned short pointId, bool plainAddress) {
    if (device != m_config.deviceId) return SIM_NO_DEVICE;
    if (!plainAddress) return SIM_NO_POINT;
    return m_faults.StatusOf(access, pointId);
}

void SimDevice::HandleRequest(const std::string& text) {
    const bool request = !text.empty() && text != "NONE" && text != "SUCCESS" && text != "ERROR";
    if (request && !m_abort.Tripped())
        Answer(text == "DIRREQ" ? SimOperation::DIRECTORY : SimOperation::FETCH, text);
}

void SimDevice::Answer(SimOperation operation, const std::string& text) {
    const SimFault fault = m_faults.Of(operation);
    if (fault.answer == SimAnswer::SILENT) return;
    const std::string name = operation == SimOperation::DIRECTORY ? m_files.MakeListing() : text;
    const std::string word = operation == SimOperation::DIRECTORY ? name : "READY";
    SimSource source;
    if (!m_files.Open(name, source) && fault.answer != SimAnswer::NONE_VALUE) return;
    if (fault.delayMs == 0)
        GiveAnswer(fault, word, source.size);
    else
        m_late.Schedule(fault.delayMs,
                        [this, fault, word, size = source.size] { GiveAnswer(fault, word, size); });
    constexpr unsigned int kLongestWaitMs = 5000;
    if (fault.answerBeforeReturn && !m_config.manualDelivery && !m_changes.InListener())
        m_changes.WaitIdle(kLongestWaitMs);
}

// The size comes first, because the card uses the last size that it has seen.
void SimDevice::GiveAnswer(const SimFault& fault, const std::string& word, std::uint64_t size) {
    if (fault.answer == SimAnswer::NONE_VALUE) {
        ChangeString(sim_point::CLIENT_FILE_REQ, "NONE");
        return;
    }
    if (fault.announceSize)
        ChangeUint32(sim_point::XFER_FILE_SIZE, AnnouncedSize(size, fault.announceSizeDelta));
    ChangeString(sim_point::CLIENT_FILE_REQ, word);
    if (fault.answer == SimAnswer::READY_TWICE) ChangeString(sim_point::CLIENT_FILE_REQ, word);
}

bool SimDevice::AdmitTransfer(unsigned short device, const SimFault& fault,
                              const SimAbort::Call& call) const {
    if (device != m_config.deviceId || fault.refuse) return false;
    if (fault.stuck && fault.stuckAfterBytes == 0) call.Hang();
    return !call.Ended();
}

bool SimDevice::Deliver(const std::string& fileName, const SimFault& fault, const SimAbort::Call& call) {
    SimSource source;
    if (!m_files.Open(fileName, source)) return false;
    const std::string path = m_config.landingDirectory + fileName;
    KyFd target(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
    if (!target) return false;
    const bool copied = source.CopyTo(target.Get(), m_config.lineRate, fault, call);
    return target.Close() && copied && !call.Ended();
}

// The file is hidden until it is complete: the listing and fetches ignore hidden files.
bool SimDevice::Accept(const std::string& path, const std::string& xferFileName, const SimFault& fault,
                       const SimAbort::Call& call) {
    SimSource source;
    if (!SimFiles::IsFileName(xferFileName) || !source.OpenFile(path) || source.size > m_config.maxFileSize)
        return false;
    std::string hidden = m_config.directory + ".arriving-XXXXXX";
    KyFd target(mkostemp(hidden.data(), O_CLOEXEC));
    if (!target) return false;
    const bool stored = source.CopyTo(target.Get(), m_config.lineRate, fault, call) &&
                        fchmod(target.Get(), 0644) == 0 && target.Close() && !call.Ended() &&
                        rename(hidden.c_str(), (m_config.directory + xferFileName).c_str()) == 0;
    if (!stored) unlink(hidden.c_str());
    return stored;
}

unsigned short SimDevice::IndexOr(unsigned short mmIdx) const {
    return mmIdx == 0 ? m_config.cardIndex : mmIdx;
}

std::unique_ptr<SimDevice> SimDeviceBuilder::Build() const {
    struct stat info = {};
    if (stat(m_config.directory.c_str(), &info) != 0) return nullptr;
    try {
        SimDeviceConfig config = m_config;
        if (!m_macGiven) config.mac = tal_netutils::KyNetUtils::GetMAC();
        if (config.landingDirectory.empty())
            config.landingDirectory = "/var/local/tal/pldserver/" + std::to_string(config.deviceId) + "/";
        return std::unique_ptr<SimDevice>(new SimDevice(config));
    } catch (const std::exception&) {
        return nullptr;
    }
}
