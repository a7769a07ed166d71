// Directory fetch: the request, the monitor that watches the listing file arrive, and reading it into memory.
// The worker is the one of the file fetch.
#include <fstream>
#include <memory>

#include "directory/KyBlankSeparatedListing.h"
#include "directory/KyTferDirectory.h"
#include "engine/KyTferClientConstants.h"
#include "engine/KyTferClientRequest.h"
#include "engine/KyTransferMonitor.h"
#include "platform/KyDlog.h"

using namespace ky_engine;

namespace {

constexpr char kRequestFunction[] = "GetDirectoryFromDevRequest";
constexpr char kRequested[] = "Directory listing has been requested";
constexpr long long kDirectoryLimitSeconds = 60;

}  // namespace

KyTferStatusMsg KyTferClient::GetDirectoryFromDevRequest() {
    return Admit(kRequestFunction, [this](KyTferStatusMsg& result) { RequestDirectory(result); });
}

void KyTferClient::RequestDirectory(KyTferStatusMsg& result) {
    if (IsInProgress()) {
        Refuse(result, kRequestFunction, kInProgress);
        return;
    }
    const int status = SendString(kRequestDirectory, PNT_CLIENT_FILE_REQ);
    if (status != 0) {
        RefuseDirectory(status, result);
        return;
    }
    const unsigned long long transaction = RecordDirectoryRequest(result);
    __dlog_printfex(KY_DLOG_NOTICE, kSource, kRequestFunction, "%s", kRequested);
    const int error = m_threads.Start(KyEngineThreads::MONITOR, MonitorGetDirThreadStart, this, transaction,
                                      m_getDirMonitorThread);
    if (error != 0) {
        NoteUnwatched(transaction);
        __dlog_printfex(KY_DLOG_ERROR, kSource, kRequestFunction,
                        "Error creating directory monitor thread.  error=%d", error);
    }
}

bool KyTferClient::IsInProgress() {
    KyRequestLock lock(m_requestMutex);
    return m_status.GetStatus() == KyTferStatusMsg::TFER_STATUS_INPROGRESS;
}

// The record keeps its status; only its kind is forgotten, so that no late answer of the device starts a
// worker.
void KyTferClient::RefuseDirectory(int status, KyTferStatusMsg& result) {
    const std::string text = "Failed to send directory request to server. Status=" + std::to_string(status);
    Refuse(result, kRequestFunction, text.c_str());
    result.SetReqType(KyTferStatusMsg::TFER_REQ_DIRECTORY);
    KyRequestLock lock(m_requestMutex);
    SetRequestType(KyTferStatusMsg::TFER_REQ_NONE);
}

unsigned long long KyTferClient::RecordDirectoryRequest(KyTferStatusMsg& result) {
    const std::string landingDir = LandingDirectory();
    KyRequestLock lock(m_requestMutex);
    KyTferStatusMsg next(m_status);
    next.SetStatusMsg(kRequested);
    next.SetStatus(KyTferStatusMsg::TFER_STATUS_INPROGRESS);
    next.SetOrigFileName(kRequestDirectory);
    next.SetXferFileName(kRequestDirectory);
    next.SetFilePath(landingDir);
    next.SetBytesTransfered(0);
    next.SetReqType(KyTferStatusMsg::TFER_REQ_DIRECTORY);
    Accept(next, result);
    return BeginTransaction();
}

void* KyTferClient::MonitorGetDirThreadStart(void* engine) {
    return RunThread(engine, "t-getDirMonitor", &KyTferClient::MonitorGetDirRequest);
}

void KyTferClient::MonitorGetDirRequest() {
    RunGuarded(&KyTferClient::WatchDirectory);
}

void KyTferClient::WatchDirectory() {
    static const MonitorFlow kFlow = {"MonitorGetDirRequest",
                                      kDirectoryLimitSeconds,
                                      false,
                                      &KyTferClient::PollDirectory,
                                      &KyTferClient::TimeOutDirectory,
                                      &KyTferClient::EndDirectoryByTime,
                                      "Exit Bottom"};
    Watch(kFlow);
}

KyTferClient::PollResult KyTferClient::PollDirectory(unsigned long long transaction) {
    PollResult result;
    if (!IsCurrent(transaction)) return result.Leave(nullptr);
    if (m_status.GetStatus() == KyTferStatusMsg::TFER_STATUS_NONE) {
        m_transactionActive = false;
        return result.Leave("Exit NONE");
    }
    if (m_status.GetStatus() == KyTferStatusMsg::TFER_STATUS_COMPLETE || m_completedByWorker == transaction) {
        m_transactionActive = false;
        return result.Leave("Exit COMPLETE 1");
    }
    Describe(result);
    // The size is not known before the device has announced it.
    if (m_status.GetBytesRequested() != 0) MeasureArrivingFile(result);
    return RecordProgress(result, transaction, "Directory File Transfer Complete", "Exit COMPLETE 2");
}

void KyTferClient::TimeOutDirectory() {
    m_transactionActive = false;
    Record(KyTferStatusMsg::TFER_STATUS_FAIL, "File transfer timed out");
}

// Whoever is in progress after the time-out step has come in since: a push, or a worker that will end by
// itself.
void KyTferClient::EndDirectoryByTime(unsigned long long transaction, bool afterTimeOut) {
    const KyTferStatusMsg::TferStatus status = m_status.GetStatus();
    if (!IsCurrent(transaction) || m_completedByWorker == transaction) return;
    if (status == KyTferStatusMsg::TFER_STATUS_COMPLETE) return;
    if (afterTimeOut && status == KyTferStatusMsg::TFER_STATUS_INPROGRESS) return;
    Record(KyTferStatusMsg::TFER_STATUS_FAIL, "File transfer Failed - timedout");
}

void KyTferClient::CreateDirectoryFromFile(const std::string& path) {
    try {
        std::ifstream file;
        unsigned long long size = 0;
        // Only a regular file: opening a FIFO would wait for its writer. What is not open gives an empty
        // listing.
        if (GetFileSize(path, size)) file.open(path);
        auto listing = std::make_unique<KyTferDirectory>();
        ky_directory::ReadBlankSeparatedListing(file, *listing);
        const bool taken = m_directoryMap.emplace(path, listing.get()).second;
        if (taken) static_cast<void>(listing.release());
    } catch (...) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "CreateDirectoryFromFile", "%s", kOutOfMemory);
    }
}

void KyTferClient::FreeListings() {
    for (const auto& listing : m_directoryMap)
        delete listing.second;
    m_directoryMap.clear();
}
