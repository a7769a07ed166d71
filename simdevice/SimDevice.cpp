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

namespace {

// The upper half is not empty: a card that takes the whole of it for a 16-bit identifier asks for another
// report.
constexpr unsigned int s_monAgentReport = 0x10065;

unsigned int AnnouncedSize(std::uint64_t size, long long delta) {
    constexpr long long most = std::numeric_limits<unsigned int>::max();
    const long long real = size > static_cast<std::uint64_t>(most) ? most : static_cast<long long>(size);
    return static_cast<unsigned int>(std::clamp(real + std::clamp(delta, -most, most), 0LL, most));
}

}  // namespace

SimDevice::SimDevice(const SimDeviceConfig& config)
    : m_config(config),
      m_journal(config.journal),
      m_changes(config.manualDelivery),
      m_points(config, m_changes),
      m_files(config.directory),
      m_line(config.lineRate),
      m_late(m_abort, m_changes) {}

// Both threads may be inside this object's operations; they end while it is still whole.
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

unsigned int SimDevice::GetUint32(unsigned short pointId) const {
    unsigned int value = 0;
    m_points.Read(pointId, 0, value);
    return value;
}

std::string SimDevice::LastOutcome() const {
    const std::lock_guard<std::mutex> lock(m_outcomeMutex);
    return m_lastOutcome;
}

unsigned int SimDevice::OutcomeCount(const std::string& outcome) const {
    const std::lock_guard<std::mutex> lock(m_outcomeMutex);
    const auto found = m_outcomeCounts.find(outcome);
    return found == m_outcomeCounts.end() ? 0 : found->second;
}

int SimDevice::GetMaiString(std::string& value, unsigned short device, unsigned short pointId,
                            unsigned short mmIdx, unsigned short idx, unsigned short uom, short norm,
                            unsigned int option) {
    return Recorded({SimCallKind::GET_STRING, pointId, "", 0, device, mmIdx}, [&](SimCall& call) {
        const bool plain = idx == 0 && uom == 0 && norm == 0 && option == 0;
        int status = Admit(SimAccess::READ, device, pointId, plain);
        if (status == SIM_OK) status = m_points.Read(pointId, mmIdx, value);
        if (status == SIM_OK) call.value = value;
        return status;
    });
}

int SimDevice::GetMaiUint32(unsigned int& value, unsigned short device, unsigned short pointId,
                            unsigned short mmIdx, unsigned short idx, unsigned short uom, short norm) {
    return Recorded({SimCallKind::GET_UINT32, pointId, "", 0, device, mmIdx}, [&](SimCall& call) {
        int status = Admit(SimAccess::READ, device, pointId, idx == 0 && uom == 0 && norm == 0);
        if (status == SIM_OK) status = m_points.Read(pointId, mmIdx, value);
        if (status == SIM_OK) call.value = std::to_string(value);
        return status;
    });
}

int SimDevice::SetMaiString(const char* value, unsigned short device, unsigned short pointId,
                            unsigned short mmIdx, unsigned short idx, unsigned short uom, short norm,
                            unsigned int option, unsigned int timeout) {
    if (value == nullptr) return SIM_BAD_VALUE;
    return Recorded({SimCallKind::SET_STRING, pointId, value, timeout, device, mmIdx}, [&](SimCall& call) {
        const bool plain = idx == 0 && uom == 0 && norm == 0 && option == 0;
        int status = Admit(SimAccess::WRITE, device, pointId, plain);
        if (status == SIM_OK) status = m_points.Write(pointId, mmIdx, call.value);
        if (status == SIM_OK && pointId == sim_point::CLIENT_FILE_REQ) HandleRequest(call.value);
        return status;
    });
}

int SimDevice::SetMaiUint32(unsigned int value, unsigned short device, unsigned short pointId,
                            unsigned short mmIdx, unsigned short idx, unsigned short uom, short norm,
                            unsigned int timeout) {
    const SimCall call = {SimCallKind::SET_UINT32, pointId, std::to_string(value), timeout, device, mmIdx};
    return Recorded(call, [&](SimCall&) {
        const int status = Admit(SimAccess::WRITE, device, pointId, idx == 0 && uom == 0 && norm == 0);
        return status == SIM_OK ? m_points.Write(pointId, mmIdx, value) : status;
    });
}

int SimDevice::GetMaxModuleCount(unsigned int& count, unsigned short device, unsigned short reportId) {
    return Recorded({SimCallKind::MODULE_COUNT, reportId, "", 0, device, 0}, [&](SimCall& call) {
        if (reportId != static_cast<unsigned short>(s_monAgentReport)) return int{SIM_NO_POINT};
        const int status = Admit(SimAccess::MODULE_COUNT, device, sim_point::MON_AGENT_INFO, true);
        if (status != SIM_OK) return status;
        count = m_config.modules;
        call.value = std::to_string(count);
        return status;
    });
}

int SimDevice::GetPointReportId(unsigned int& reportId, unsigned short device, unsigned short pointId) {
    return Recorded({SimCallKind::REPORT_ID, pointId, "", 0, device, 0}, [&](SimCall& call) {
        if (pointId != sim_point::MON_AGENT_INFO) return int{SIM_NO_POINT};
        const int status = Admit(SimAccess::REPORT_ID, device, pointId, true);
        if (status != SIM_OK) return status;
        reportId = s_monAgentReport;
        call.value = std::to_string(reportId);
        return status;
    });
}

void SimDevice::AbortTransfer(unsigned short device) {
    if (device == m_config.deviceId) m_abort.EndCalls();
}

bool SimDevice::DoGetDevFile(unsigned short device, const std::string&, const std::string& fileName) {
    const SimAbort::Call call(m_abort);
    return SIM_OK == Recorded({SimCallKind::GET_FILE, 0, fileName, 0, device, 0}, [&](SimCall&) {
               const SimFault fault =
                   m_faults.Of(m_files.IsListing(fileName) ? SimOperation::DIRECTORY : SimOperation::FETCH);
               const int status = AdmitTransfer(device, fault, call);
               return status != SIM_OK || fault.noFile ? status : Deliver(fileName, fault, call);
           });
}

bool SimDevice::DoPutDevFile(unsigned short device, const std::string& directory, const std::string& fileName,
                             const std::string& xferFileName) {
    const SimAbort::Call call(m_abort);
    const std::string names = directory + " " + fileName + " " + xferFileName;
    return SIM_OK == Recorded({SimCallKind::PUT_FILE, 0, names, 0, device, 0}, [&](SimCall&) {
               const SimFault fault = m_faults.Of(SimOperation::PUSH);
               call.Sleep(std::uint64_t{fault.delayMs} * 1000);
               const int status = AdmitTransfer(device, fault, call);
               return status != SIM_OK || fault.noFile
                          ? status
                          : Accept(directory + fileName, xferFileName, fault, call);
           });
}

// Every call of the card goes through here: into the journal, and without an exception out of it.
template <typename Work>
int SimDevice::Recorded(SimCall call, Work work) {
    try {
        const std::size_t number = m_journal.Begin(call);
        const int status = work(call);
        m_journal.End(number, status, call.value);
        return status;
    } catch (const std::exception&) {
        return SIM_OUT_OF_MEMORY;
    }
}

int SimDevice::Admit(SimAccess access, unsigned short device, unsigned short pointId, bool plainAddress) {
    if (device != m_config.deviceId) return SIM_NO_DEVICE;
    if (!plainAddress) return SIM_NO_POINT;
    const auto [delayMs, status] = m_faults.TakeAccess(access, pointId);
    m_abort.Sleep(std::uint64_t{delayMs} * 1000);
    return status;
}

void SimDevice::HandleRequest(const std::string& text) {
    if (text.empty() || text == "NONE" || text == "SUCCESS" || text == "ERROR") {
        const std::lock_guard<std::mutex> lock(m_outcomeMutex);
        ++m_outcomeCounts[text];
        if (!text.empty()) m_lastOutcome = text;
    } else if (!m_abort.Tripped()) {
        Answer(text == "DIRREQ" ? SimOperation::DIRECTORY : SimOperation::FETCH, text);
    }
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
    constexpr unsigned int longestWaitMs = 5000;
    if (fault.answerBeforeReturn && !m_config.manualDelivery && !m_changes.InListener())
        m_changes.WaitIdle(longestWaitMs);
}

// The card takes the size that it saw last for that of the file, so the size comes first.
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

int SimDevice::AdmitTransfer(unsigned short device, const SimFault& fault, const SimAbort::Call& call) const {
    if (device != m_config.deviceId) return SIM_NO_DEVICE;
    if (fault.refuse) return SIM_REFUSED;
    if (fault.stuck && fault.stuckAfterBytes == 0) call.WaitEnded();
    return call.Ended() ? SIM_ABORTED : SIM_OK;
}

int SimDevice::Deliver(const std::string& fileName, const SimFault& fault, const SimAbort::Call& call) {
    SimSource source;
    if (!m_files.Open(fileName, source)) return SIM_NO_FILE;
    const std::string path = m_config.landingDirectory + fileName;
    KyFd target(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
    if (!target) return SIM_IO_FAILURE;
    const bool copied = m_line.Copy(source, target.Get(), fault, call);
    const bool closed = target.Close();
    if (call.Ended()) return SIM_ABORTED;
    return copied && closed ? SIM_OK : SIM_IO_FAILURE;
}

// The file takes its name only when it is whole; until then it is hidden, and so none of the device's files.
int SimDevice::Accept(const std::string& path, const std::string& xferFileName, const SimFault& fault,
                      const SimAbort::Call& call) {
    SimSource source;
    if (!SimFiles::IsFileName(xferFileName) || !source.OpenFile(path) || source.size > m_config.maxFileSize)
        return SIM_NO_FILE;
    std::string hidden = m_config.directory + ".arriving-XXXXXX";
    KyFd target(mkostemp(hidden.data(), O_CLOEXEC));
    if (!target) return SIM_IO_FAILURE;
    const bool stored = m_line.Copy(source, target.Get(), fault, call) && fchmod(target.Get(), 0644) == 0 &&
                        target.Close() && !call.Ended() &&
                        rename(hidden.c_str(), (m_config.directory + xferFileName).c_str()) == 0;
    if (stored) return SIM_OK;
    unlink(hidden.c_str());
    return call.Ended() ? SIM_ABORTED : SIM_IO_FAILURE;
}

unsigned short SimDevice::IndexOr(unsigned short mmIdx) const {
    return mmIdx == 0 ? m_config.cardIndex : mmIdx;
}
