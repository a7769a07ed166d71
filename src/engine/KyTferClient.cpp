#include "engine/KyTferClient.h"

#include <sys/prctl.h>

#include <mutex>
#include <optional>

#include "engine/KyDeviceAccess.h"
#include "engine/KyDirectoryFetch.h"
#include "engine/KyEngineThreads.h"
#include "engine/KyEngineTime.h"
#include "engine/KyFileFetch.h"
#include "engine/KyFilePush.h"
#include "engine/KyModuleSearch.h"
#include "engine/KyNegotiation.h"
#include "engine/KyPointChangeHandler.h"
#include "engine/KyStatusRecord.h"
#include "engine/KyTferClientConstants.h"
#include "engine/KyTferClientMembers.h"
#include "engine/KyTransferMonitor.h"
#include "platform/KyDlog.h"
#include "platform/tal_fileutils.h"

using namespace ky_engine;
using Call = KyEngineThreads::Call;

namespace {

// Sets `result` to a failed record with this reason, or with "Out of memory".
void Fail(KyTferStatusMsg& result, const char* reason) {
    KyTferStatusMsg failed(512);
    failed.SetStatus(KyTferStatusMsg::TFER_STATUS_FAIL);
    try {
        failed.SetStatusMsg(std::string(reason));
    } catch (...) {
        failed.SetStatusMsg(std::string(kOutOfMemory));  // fits without an allocation
    }
    result.Swap(failed);
}

void Refuse(KyTferStatusMsg& result, const char* function, const char* reason) {
    __dlog_printfex(KY_DLOG_ERROR, kSource, function, "%s", reason);
    Fail(result, reason);
}

}  // namespace

/// The parts of the engine. Each may use those declared before it.
struct ky_engine::Engine {
    KyTferClientMembers members;
    KyEngineThreads threads;
    KyDeviceAccess device{members.m_pldProxy, members.m_deviceId, members.m_maiMmIdx};
    KyStatusRecord record{members};
    KyTransferMonitor monitor{record, members.m_transactionActive};
    KyFileFetch fetch{device, record, threads, monitor, members};
    KyFilePush push{device, record, threads, members};
    KyDirectoryFetch directory{device, record, threads, monitor, fetch, members};
    KyPointChangeHandler pointChanges{device, record, fetch, directory, members};

    // Held while a request is accepted and written to the device: keeps point writes of two requests apart. Taken
    // before all other locks.
    std::mutex deviceRequestMutex;

    void MakeDirectories() const;

    // Runs a request. Refuses it without a device and after Stop, makes Stop wait for it, and catches what it
    // throws. `request` fills its argument.
    template <typename Request>
    KyTferStatusMsg Admit(const char* function, Request request) {
        KyTferStatusMsg result(512);
        const Call call(threads);
        const bool ready = members.m_initialized && !members.m_stopRequested && members.m_pldProxy != nullptr;
        if (!call || !ready) {
            Refuse(result, function, kNotInitialized);
            return result;
        }
        try {
            request(result);
        } catch (...) {
            Refuse(result, function, kOutOfMemory);
        }
        return result;
    }
};

KyTferClient::KyTferClient() : m_engine(std::make_unique<Engine>()) {}

KyTferClient::~KyTferClient() {
    KyTferClient::Stop();
}

// --- Life of the engine

int KyTferClient::Init(unsigned short deviceId, KyPldProxy* proxy) {
    KyTferClientMembers& members = m_engine->members;
    const Call call(m_engine->threads, Call::ALWAYS);
    members.m_deviceId = deviceId;
    members.m_pldProxy = proxy;
    __dlog_printfex(KY_DLOG_TRACE, kSource, "Init", "Enter");
    members.m_physicalSlot = 1;
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "Init", "Monitoring card is in physical slot #%d",
                    members.m_physicalSlot);
    int status = kNoMemory;
    try {
        FindModule(m_engine->device, members.m_maiMmIdx, members.m_stopRequested);
        __dlog_printfex(KY_DLOG_NOTICE, kSource, "Init",
                        "MAI multi-module index (1-based) that we will use: %d", members.m_maiMmIdx.load());
        m_engine->MakeDirectories();
        const int error = members.m_requestMutex.CreationError();
        if (error != 0) {
            __dlog_printfex(KY_DLOG_ERROR, kSource, "Init", "error initializing request mutex. error=%d",
                            error);
        }
        status = Negotiate(m_engine->device, members, m_engine->record.XferFileSize());
    } catch (...) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "Init", "%s", kOutOfMemory);
    }
    members.m_initialized = true;
    return status;
}

void Engine::MakeDirectories() const {
    const std::string id = std::to_string(members.m_deviceId.load());
    const std::string landing = std::string(kStagingDirectory) + "/" + id + "/";
    const std::string download = landing + ky_service::kDownloadDirectory + "/";
    KyTferClientMembers::SetDirectories(landing, download);
    tal_fileutils::MakeDirPath(download, 0777, true);
    tal_fileutils::MakeDirPath(landing + id + "/", 0777, true);
}

void KyTferClient::Stop() {
    KyTferClientMembers& members = m_engine->members;
    members.m_transactionActive = false;
    members.m_stopRequested = true;
    m_engine->threads.Close();
    // A request in progress may have set the flag again. Close has waited for it.
    members.m_transactionActive = false;
    m_engine->record.WakeMonitors();
    m_engine->threads.JoinAll();
}

void KyTferClient::SetPollPause(unsigned int milliseconds) {
    m_engine->monitor.SetPause(milliseconds);
}

// --- Requests and status

KyTferStatusMsg KyTferClient::GetFileFromDevRequest(const std::string& fileName, int fileSize) {
    static constexpr char kFunction[] = "GetFileFromDevRequest";
    return m_engine->Admit(kFunction, [&](KyTferStatusMsg& result) {
        const std::lock_guard<std::mutex> lock(m_engine->deviceRequestMutex);
        if (!m_engine->fetch.Request(fileName, static_cast<unsigned int>(fileSize), result))
            Refuse(result, kFunction, kAlreadyInProgress);
    });
}

KyTferStatusMsg KyTferClient::PutFileToDevRequest(const std::string& directory, const std::string& fileName) {
    return m_engine->Admit("PutFileToDevRequest", [&](KyTferStatusMsg& result) {
        m_engine->push.Request(directory, fileName, result);
    });
}

KyTferStatusMsg KyTferClient::GetDirectoryFromDevRequest() {
    static constexpr char kFunction[] = "GetDirectoryFromDevRequest";
    return m_engine->Admit(kFunction, [&](KyTferStatusMsg& result) {
        const std::lock_guard<std::mutex> lock(m_engine->deviceRequestMutex);
        const std::optional<int> status = m_engine->directory.Request(result);
        if (!status) return Refuse(result, kFunction, kAlreadyInProgress);
        if (*status == 0) return;
        const std::string text =
            "Failed to send directory request to server. Status=" + std::to_string(*status);
        Refuse(result, kFunction, text.c_str());
        result.SetReqType(KyTferStatusMsg::TFER_REQ_DIRECTORY);
    });
}

KyTferStatusMsg KyTferClient::GetStatus(const std::string& /*transactionId*/) {
    try {
        return m_engine->record.Copy();
    } catch (...) {
        KyTferStatusMsg result(512);
        Fail(result, kOutOfMemory);
        return result;
    }
}

void KyTferClient::CancelTransaction(const std::string& transactionId) {
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "CancelTransaction", "Cancel transaction (%s)",
                    transactionId.c_str());
}

// Ends the transaction before it waits for requests in progress. Tells the device only if no new one has begun.
KyTferStatusMsg KyTferClient::AbandonTransaction(const std::string& reason) {
    static constexpr char kFunction[] = "AbandonTransaction";
    const Call call(m_engine->threads);
    KyTferStatusMsg result(512);
    try {
        const std::string text = reason.empty() ? kCancelled : kCancelled + (": " + reason);
        const auto abandoned = m_engine->record.Abandon(text, result);
        if (!abandoned.any || !call) return result;
        __dlog_printfex(KY_DLOG_NOTICE, kSource, kFunction, "%s", text.c_str());
        const std::lock_guard<std::mutex> lock(m_engine->deviceRequestMutex);
        if (!m_engine->record.IsCurrent(abandoned.number)) return result;
        m_engine->device.AbortTransfer();
        if (abandoned.unanswered) m_engine->device.Send(kRequestNone, PNT_CLIENT_FILE_REQ);
    } catch (...) {
        Refuse(result, kFunction, kOutOfMemory);
    }
    return result;
}

void KyTferClient::CreateDirectoryFromFile(const std::string& path) {
    try {
        m_engine->directory.CreateDirectoryFromFile(path);
    } catch (...) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "CreateDirectoryFromFile", "%s", kOutOfMemory);
    }
}

bool KyTferClient::WorkerRunning() const {
    return m_engine->threads.WorkerRunning();
}

// --- The device

void KyTferClient::DataChange(const KyValChgInfo& info) {
    try {
        m_engine->pointChanges.Handle(info);
    } catch (...) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "DataChange", "%s", kOutOfMemory);
    }
}

void KyTferClient::SetDmpSupported(bool supported) {
    ky_engine::SetDmpSupported(supported);
}

int KyTferClient::MaiStringSend(const std::string& value, unsigned short pointId) {
    const Call call(m_engine->threads);
    return call ? m_engine->device.Send(value, pointId) : kStopped;
}

int KyTferClient::MaiStringGet(std::string& value, unsigned short pointId) {
    const Call call(m_engine->threads);
    return call ? m_engine->device.ReadText(value, pointId, m_engine->members.m_maiMmIdx) : kStopped;
}

bool KyTferClient::AcquireMaiMmIdx() {
    KyTferClientMembers& members = m_engine->members;
    const Call call(m_engine->threads);
    return call && FindModule(m_engine->device, members.m_maiMmIdx, members.m_stopRequested);
}

bool KyTferClient::SleepUnlessStopped(unsigned int seconds, std::atomic<bool>& stop) {
    return ky_engine::SleepUnlessStopped(seconds, stop);
}

// --- Results of Init

bool KyTferClient::IsTferProtocolSupported() const {
    return m_engine->members.m_serverMinVersion != 0 && m_engine->members.m_serverMaxVersion != 0;
}

std::string KyTferClient::GetHmiDownloadDirectory() {
    std::string directory;
    try {
        directory = KyTferClientMembers::DownloadDirectory();
    } catch (...) {
        return directory;
    }
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "GetHmiDownloadDirectory", "%p - %s",
                    KyTferClientMembers::DownloadDirectoryAddress(), directory.c_str());
    return directory;
}

std::string KyTferClient::GetCardReceiveFileDirectory() {
    try {
        return KyTferClientMembers::LandingDirectory();
    } catch (...) {
        return std::string();
    }
}

// --- Bodies and entry points of the engine's threads

namespace {

void* RunAs(const char* name, void* engine, void (KyTferClient::*body)()) {
    if (engine == nullptr) return nullptr;
    prctl(PR_SET_NAME, name);
    (static_cast<KyTferClient*>(engine)->*body)();
    return nullptr;
}

}  // namespace

void KyTferClient::GetFileFromDevice() {
    const Call call(m_engine->threads);
    if (call) m_engine->fetch.GetFileFromDevice();
}

void KyTferClient::MonitorGetFileRequest() {
    m_engine->monitor.WatchCurrent(Transaction::FETCH);
}

void KyTferClient::PutFileToDevice() {
    const Call call(m_engine->threads);
    if (call) m_engine->push.PutFileToDevice();
}

void KyTferClient::MonitorPutFileRequest() {
    m_engine->monitor.HoldForPush();
}

void KyTferClient::MonitorGetDirRequest() {
    m_engine->monitor.WatchCurrent(Transaction::LISTING);
}

void* KyTferClient::GetFileFromDevThreadStart(void* engine) {
    return RunAs("t-getFileWorker", engine, &KyTferClient::GetFileFromDevice);
}

void* KyTferClient::MonitorGetFileThreadStart(void* engine) {
    return RunAs("t-getFileMonitor", engine, &KyTferClient::MonitorGetFileRequest);
}

void* KyTferClient::PutFileToDevThreadStart(void* engine) {
    return RunAs("t-putDevFileWorker", engine, &KyTferClient::PutFileToDevice);
}

void* KyTferClient::MonitorPutFileThreadStart(void* engine) {
    return RunAs("t-putFileMonitor", engine, &KyTferClient::MonitorPutFileRequest);
}

void* KyTferClient::MonitorGetDirThreadStart(void* engine) {
    return RunAs("t-getDirMonitor", engine, &KyTferClient::MonitorGetDirRequest);
}
