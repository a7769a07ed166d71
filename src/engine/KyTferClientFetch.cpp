// File fetch: the request, the worker that brings the file, and the monitor that watches it arrive.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "engine/KyTferClientConstants.h"
#include "engine/KyTferClientRequest.h"
#include "engine/KyTransferMonitor.h"
#include "platform/KyDlog.h"

using namespace ky_engine;

namespace {

constexpr char kRequestFunction[] = "GetFileFromDevRequest";
constexpr char kWorkerFunction[] = "GetFileFromDevice";
constexpr char kLeaveSuccess[] = "Leave success";
constexpr long long kFetchLimitSeconds = 180;

}  // namespace

/// What the worker has read from the record when it began.
struct KyTferClient::FetchJob {
    unsigned long long transaction = 0;
    std::string name;
    std::string landingPath;
    unsigned int expectedSize = 0;
};

KyTferStatusMsg KyTferClient::GetFileFromDevRequest(const std::string& fileName, int fileSize) {
    return Admit(kRequestFunction, [&](KyTferStatusMsg& result) {
        RequestFetch(fileName, static_cast<unsigned int>(fileSize), result);
    });
}

void KyTferClient::RequestFetch(const std::string& fileName, unsigned int fileSize, KyTferStatusMsg& result) {
    const unsigned long long transaction = AcceptFetch(fileName, fileSize, result);
    if (transaction == 0) {
        Refuse(result, kRequestFunction, kInProgress);
        return;
    }
    const int error = m_threads.Start(KyEngineThreads::MONITOR, MonitorGetFileThreadStart, this, transaction,
                                      m_getFileMonitorThread);
    if (error != 0) NoteUnwatched(transaction);
    const int status = SendString(fileName, PNT_CLIENT_FILE_REQ);
    // The device does not know of it, and no monitor will end it.
    if (error != 0 && status != 0) EndUnwatched();
}

// Returns the new transaction's number, or 0, with nothing changed, if another one is in progress.
unsigned long long KyTferClient::AcceptFetch(const std::string& fileName, unsigned int fileSize,
                                             KyTferStatusMsg& result) {
    const std::string landingDir = LandingDirectory();
    KyRequestLock lock(m_requestMutex);
    if (m_status.GetStatus() == KyTferStatusMsg::TFER_STATUS_INPROGRESS) return 0;
    KyTferStatusMsg next(m_status);
    next.SetStatus(KyTferStatusMsg::TFER_STATUS_INPROGRESS);
    next.SetFilePath(landingDir);
    next.SetXferFileName(fileName);
    next.SetBytesRequested(fileSize);
    next.SetReqType(KyTferStatusMsg::TFER_REQ_GET_FILE);
    Accept(next, result);
    m_xferFileSize = fileSize;
    return BeginTransaction();
}

void KyTferClient::NoteUnwatched(unsigned long long transaction) {
    KyRequestLock lock(m_requestMutex);
    m_unwatched = transaction;
}

void KyTferClient::StartFetchWorker(unsigned long long transaction, pthread_t& handle) {
    if (m_threads.Start(KyEngineThreads::WORKER, GetFileFromDevThreadStart, this, transaction, handle) != 0)
        EndUnwatched();
}

// A change of the device could not be acted upon. A transaction that has no monitor to end it would stay in
// progress for ever, and no other could begin.
void KyTferClient::EndUnwatched() {
    unsigned long long transaction = 0;
    {
        KyRequestLock lock(m_requestMutex);
        transaction = m_unwatched;
    }
    if (m_threads.WorkerRunning(transaction)) return;
    KyRequestLock lock(m_requestMutex);
    if (IsCurrent(transaction) && m_status.GetStatus() == KyTferStatusMsg::TFER_STATUS_INPROGRESS)
        RecordNoMemory(transaction);
}

void* KyTferClient::GetFileFromDevThreadStart(void* engine) {
    return RunThread(engine, "t-getFileWorker", &KyTferClient::GetFileFromDevice);
}

void KyTferClient::GetFileFromDevice() {
    RunGuarded(&KyTferClient::FetchFile);
}

void KyTferClient::FetchFile() {
    __dlog_printfex(KY_DLOG_NOTICE, kSource, kWorkerFunction, "Enter");
    FetchJob job;
    if (BeginFetch(job)) {
        __dlog_printfex(KY_DLOG_NOTICE, kSource, kWorkerFunction, "request file(%s) from pldproxy",
                        job.name.c_str());
        if (!LeavesDirectory(job.name)) FetchThroughProxy(job.name);
        EndFetch(job);
        const int status = WritePoint(0, PNT_XFER_FILE_SIZE);
        if (status != 0) {
            __dlog_printfex(KY_DLOG_ERROR, kSource, kWorkerFunction,
                            "Could not set xfer file size back to zero. status(%d)", status);
        }
    }
    __dlog_printfex(KY_DLOG_NOTICE, kSource, kWorkerFunction, "Exit");
}

// False if the transaction that this worker was started for has already given way to another: the name in the
// record is then not the one that the device has made ready.
bool KyTferClient::BeginFetch(FetchJob& job) {
    job.transaction = TransactionOfThisThread();
    const std::string landingDir = LandingDirectory();
    KyRequestLock lock(m_requestMutex);
    if (!IsCurrent(job.transaction)) return false;
    job.name = m_status.GetXferFileName();
    job.expectedSize = m_status.GetBytesRequested();
    if (m_completedByWorker == job.transaction) {
        // The device says once more that the file is ready. It gets its answer, but the fetch stays complete.
        job.landingPath = landingDir + job.name;
        return true;
    }
    job.landingPath = m_status.GetFilePath() + job.name;
    m_failedByWorker = 0;
    m_status.SetStatus(KyTferStatusMsg::TFER_STATUS_INPROGRESS);
    return true;
}

void KyTferClient::EndFetch(const FetchJob& job) {
    unsigned long long size = 0;
    if (LeavesDirectory(job.name) || !GetFileSize(job.landingPath, size)) {
        FetchedNothing(job);
    } else if (size == job.expectedSize) {
        FetchedWhole(job);
    } else {
        FetchedOtherSize(job, size);
    }
}

void KyTferClient::FetchedNothing(const FetchJob& job) {
    const std::string text =
        "Failed to get file(" + job.name + ") from device. and " + "place it here(" + job.landingPath + ")";
    RecordFailedFetch(job, text);
    __dlog_printfex(KY_DLOG_ERROR, kSource, kWorkerFunction, "%s", text.c_str());
}

void KyTferClient::FetchedWhole(const FetchJob& job) {
    const std::string text =
        "Retrieved file(" + job.name + ") successfully. and placed it " + "in (" + job.landingPath + ")";
    __dlog_printfex(KY_DLOG_NOTICE, kSource, kWorkerFunction, "%s", text.c_str());
    const std::string downloadDir = DownloadDirectory();
    const std::string finalPath = downloadDir + job.name;
    __dlog_printfex(KY_DLOG_NOTICE, kSource, kWorkerFunction, "rename %s --> %s", job.landingPath.c_str(),
                    finalPath.c_str());
    if (rename(job.landingPath.c_str(), finalPath.c_str()) != 0) {
        const int error = errno;
        __dlog_printfex(KY_DLOG_ERROR, kSource, kWorkerFunction,
                        "Failed to move file(%s) --> file(%s) errno(%d) - %s", job.landingPath.c_str(),
                        finalPath.c_str(), error, strerror(error));
    }
    RecordCompletedFetch(job, downloadDir, text);
    SendString(kRequestSuccess, PNT_CLIENT_FILE_REQ);
}

void KyTferClient::FetchedOtherSize(const FetchJob& job, unsigned long long size) {
    const std::string text = "Failed to get file(" + job.name + ") from device. " + "Expecting(" +
                             std::to_string(job.expectedSize) + ") bytes only received(" +
                             std::to_string(size) + ") bytes.";
    RecordFailedFetch(job, text);
    SendString(kRequestError, PNT_CLIENT_FILE_REQ);
    __dlog_printfex(KY_DLOG_ERROR, kSource, kWorkerFunction, "%s", text.c_str());
}

// Leaves the active flag set: a monitor that still runs goes on until its time limit.
void KyTferClient::RecordFailedFetch(const FetchJob& job, const std::string& text) {
    KyRequestLock lock(m_requestMutex);
    if (!IsCurrent(job.transaction) || m_completedByWorker == job.transaction) return;
    m_failedByWorker = job.transaction;
    Record(KyTferStatusMsg::TFER_STATUS_FAIL, text);
    m_status.SetBytesTransfered(m_status.GetBytesRequested());
}

void KyTferClient::RecordCompletedFetch(const FetchJob& job, const std::string& downloadDir,
                                        const std::string& text) {
    KyRequestLock lock(m_requestMutex);
    if (!IsCurrent(job.transaction)) return;
    KyTferStatusMsg next(m_status);
    next.SetFilePath(downloadDir);
    next.SetBytesTransfered(next.GetBytesRequested());
    next.SetStatus(KyTferStatusMsg::TFER_STATUS_COMPLETE);
    next.SetStatusMsg(text);
    Keep(next);
    m_completedByWorker = job.transaction;
    m_transactionActive = false;
}

void* KyTferClient::MonitorGetFileThreadStart(void* engine) {
    return RunThread(engine, "t-getFileMonitor", &KyTferClient::MonitorGetFileRequest);
}

void KyTferClient::MonitorGetFileRequest() {
    RunGuarded(&KyTferClient::WatchFetch);
}

void KyTferClient::WatchFetch() {
    static const MonitorFlow kFlow = {
        "MonitorGetFileRequest",       kFetchLimitSeconds, true, &KyTferClient::PollFetch, nullptr,
        &KyTferClient::EndFetchByTime, "Leave break out"};
    Watch(kFlow);
}

KyTferClient::PollResult KyTferClient::PollFetch(unsigned long long transaction) {
    PollResult result;
    if (!IsCurrent(transaction) || m_status.GetStatus() == KyTferStatusMsg::TFER_STATUS_NONE) {
        return result.Leave(nullptr);
    }
    // The file is no longer where it landed; the worker's row is the last word.
    if (m_completedByWorker == transaction) return result.Leave(kLeaveSuccess);
    Describe(result);
    MeasureArrivingFile(result);
    return RecordProgress(result, transaction, kTransferComplete, kLeaveSuccess);
}

void KyTferClient::EndFetchByTime(unsigned long long transaction, bool /*afterTimeOut*/) {
    if (!IsCurrent(transaction) || m_completedByWorker == transaction) return;
    Record(KyTferStatusMsg::TFER_STATUS_FAIL, kTimedOut);
    m_transactionActive = false;
}
