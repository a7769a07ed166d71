// File push: the request, the worker that brings the file to the device, and the monitor that nobody starts.
#include <unistd.h>

#include <cstdio>

#include "engine/KyTferClientConstants.h"
#include "engine/KyTferClientRequest.h"
#include "engine/KyTransferMonitor.h"
#include "platform/KyDlog.h"

using namespace ky_engine;

std::atomic<int> KyTferClient::m_genPutFileName{1};

namespace {

constexpr char kRequestFunction[] = "PutFileToDevRequest";
constexpr char kWorkerFunction[] = "PutFileToDevice";
constexpr char kMonitorFunction[] = "MonitorPutFileRequest";
constexpr char kRequestFailed[] = "Request failed";
constexpr unsigned int kPauseBeforeNameSeconds = 1;
constexpr long long kPushLimitSeconds = 180;

}  // namespace

KyTferStatusMsg KyTferClient::PutFileToDevRequest(const std::string& directory, const std::string& fileName) {
    return Admit(kRequestFunction,
                 [&](KyTferStatusMsg& result) { RequestPush(directory, fileName, result); });
}

void KyTferClient::RequestPush(const std::string& directory, const std::string& fileName,
                               KyTferStatusMsg& result) {
    const std::string stagedPath = std::string(kPldServerDir) + "/" + fileName;
    if (!Stage(directory + "/" + fileName, stagedPath, result)) return;
    unsigned long long transaction = 0;
    try {
        unsigned int size = 0;
        if (!MeasureStaged(stagedPath, size, result)) return;
        transaction = AnnouncePush(fileName, stagedPath, size, result);
    } catch (...) {
        unlink(stagedPath.c_str());  // refused for want of memory, but consumed as in every other case
        throw;
    }
    if (result.GetStatus() != KyTferStatusMsg::TFER_STATUS_INPROGRESS) return;
    const int error =
        m_threads.Start(KyEngineThreads::WORKER, PutFileToDevThreadStart, this, transaction, m_putFileThread);
    // The caller is told what was agreed with the device; the record must not stay in progress with nobody to
    // end it.
    if (error != 0) RecordPushEnd(transaction, KyTferStatusMsg::TFER_STATUS_FAIL, kRequestFailed);
}

// The file is the engine's from here on: one that cannot be moved is removed where it is.
bool KyTferClient::Stage(const std::string& sourcePath, const std::string& stagedPath,
                         KyTferStatusMsg& result) {
    if (rename(sourcePath.c_str(), stagedPath.c_str()) == 0) {
        __dlog_printfex(KY_DLOG_NOTICE, kSource, kRequestFunction,
                        "stage file to transfer - move(%s) --> (%s) was successful", sourcePath.c_str(),
                        stagedPath.c_str());
        return true;
    }
    __dlog_printfex(KY_DLOG_ERROR, kSource, kRequestFunction, "Could not rename (%s) --> (%s)",
                    sourcePath.c_str(), stagedPath.c_str());
    unlink(sourcePath.c_str());
    RecordFailedStaging("Failed to move file(" + sourcePath + ") to (" + stagedPath + ")", result);
    return false;
}

bool KyTferClient::MeasureStaged(const std::string& stagedPath, unsigned int& size, KyTferStatusMsg& result) {
    unsigned long long bytes = 0;
    if (GetFileSize(stagedPath, bytes)) {
        size = CountOf(bytes);
        return true;
    }
    const std::string text = "Failed to get size for file(" + stagedPath + ")";
    RecordFailedStaging(text, result);
    __dlog_printfex(KY_DLOG_ERROR, kSource, kRequestFunction, "%s", text.c_str());
    unlink(stagedPath.c_str());
    return false;
}

void KyTferClient::RecordFailedStaging(const std::string& text, KyTferStatusMsg& result) {
    KyRequestLock lock(m_requestMutex);
    KyTferStatusMsg next(m_status);
    next.SetStatus(KyTferStatusMsg::TFER_STATUS_FAIL);
    next.SetStatusMsg(text);
    next.SetBytesTransfered(0);
    Accept(next, result);
}

// Tells the device the size and, a second later, the name. The name is written even if the size was not
// taken; then the push has failed.
unsigned long long KyTferClient::AnnouncePush(const std::string& fileName, const std::string& stagedPath,
                                              unsigned int size, KyTferStatusMsg& result) {
    {
        KyRequestLock lock(m_requestMutex);
        m_xferFileSize = size;
    }
    __dlog_printfex(KY_DLOG_NOTICE, kSource, kRequestFunction, "Write file size to server(%d)",
                    static_cast<int>(size));
    const int sizeStatus = WritePoint(size, PNT_XFER_FILE_SIZE);
    std::atomic<bool> never{false};
    SleepUnlessStopped(kPauseBeforeNameSeconds, never);
    const std::string xferName = NextTransferName();
    const int nameStatus = SendString(xferName, PNT_XFER_FILE_NAME);

    const bool accepted = sizeStatus == 0 && nameStatus == 0;
    if (!accepted) {
        __dlog_printfex(
            KY_DLOG_ERROR, kSource, kRequestFunction,
            "Could not write either the transfer file name or the transfer file size to managed device "
            "s1(%d) s2(%d)",
            sizeStatus, nameStatus);
        // Before the record says so: who reads of the failure finds the file gone.
        unlink(stagedPath.c_str());
    }
    return RecordPush(fileName, xferName, accepted, result);
}

std::string KyTferClient::NextTransferName() {
    char name[32];
    snprintf(name, sizeof name, "%u-%05d", static_cast<unsigned int>(m_deviceId.load()),
             m_genPutFileName.fetch_add(1));
    return name;
}

// Returns the number of the transaction that the push shares its record with; a push has none of its own.
unsigned long long KyTferClient::RecordPush(const std::string& fileName, const std::string& xferName,
                                            bool accepted, KyTferStatusMsg& result) {
    const auto status =
        accepted ? KyTferStatusMsg::TFER_STATUS_INPROGRESS : KyTferStatusMsg::TFER_STATUS_FAIL;
    KyRequestLock lock(m_requestMutex);
    KyTferStatusMsg next(m_status);
    next.SetStatus(status);
    next.SetBytesRequested(m_xferFileSize);
    next.SetFilePath(kPldServerDir);
    next.SetOrigFileName(fileName);
    next.SetXferFileName(xferName);
    next.SetStatusMsg(accepted ? "In Progress" : kRequestFailed);
    Accept(next, result);
    return m_transaction;
}

void* KyTferClient::PutFileToDevThreadStart(void* engine) {
    return RunThread(engine, "t-putDevFileWorker", &KyTferClient::PutFileToDevice);
}

void KyTferClient::PutFileToDevice() {
    RunGuarded(&KyTferClient::PushFile);
}

void KyTferClient::PushFile() {
    const unsigned long long transaction = TransactionOfThisThread();
    std::string directory;
    std::string origName;
    std::string xferName;
    {
        KyRequestLock lock(m_requestMutex);
        directory = m_status.GetFilePath();
        origName = m_status.GetOrigFileName();
        xferName = m_status.GetXferFileName();
    }
    __dlog_printfex(KY_DLOG_NOTICE, kSource, kWorkerFunction,
                    "PLD Transfer Start orig file(%s) xfer file(%s)", origName.c_str(), xferName.c_str());
    if (PushThroughProxy(directory, origName, xferName)) {
        __dlog_printfex(KY_DLOG_NOTICE, kSource, kWorkerFunction,
                        "PLD Transfer of orig file(%s) as xfer file(%s) complete", origName.c_str(),
                        xferName.c_str());
        RecordPushEnd(transaction, KyTferStatusMsg::TFER_STATUS_COMPLETE, kTransferComplete);
    } else {
        __dlog_printfex(KY_DLOG_ERROR, kSource, kWorkerFunction,
                        "PLD Transfer of orig file(%s) as xfer file(%s) failed", origName.c_str(),
                        xferName.c_str());
        RecordPushEnd(transaction, KyTferStatusMsg::TFER_STATUS_FAIL, kRequestFailed);
    }
}

void KyTferClient::RecordPushEnd(unsigned long long transaction, KyTferStatusMsg::TferStatus status,
                                 const char* text) {
    KyRequestLock lock(m_requestMutex);
    if (!IsCurrent(transaction)) return;
    Record(status, text);
}

void* KyTferClient::MonitorPutFileThreadStart(void* engine) {
    return RunThread(engine, "t-putFileMonitor", &KyTferClient::MonitorPutFileRequest);
}

void KyTferClient::MonitorPutFileRequest() {
    RunGuarded(&KyTferClient::HoldRecordForPush);
}

void KyTferClient::HoldRecordForPush() {
    const unsigned long long transaction = TransactionOfThisThread();
    const long long start = WallClockSeconds();
    const long long end = start + kPushLimitSeconds;
    LogStart(KY_DLOG_TRACE, kMonitorFunction, start, end);
    while (m_transactionActive && WallClockSeconds() < end) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, kMonitorFunction,
                        "NOT IMPLEMENTED - DON'T KNOW WHAT TO LOOK FOR");
        {
            KyPollingLock lock(m_requestMutex);
            if (!IsCurrent(transaction)) return;
            Record(KyTferStatusMsg::TFER_STATUS_INPROGRESS, kNothingToReport);
        }
        SleepUnlessStopped(1, m_transactionActive);
    }
    KyRequestLock lock(m_requestMutex);
    if (!IsCurrent(transaction)) return;
    Record(KyTferStatusMsg::TFER_STATUS_FAIL, kTimedOut);
}
