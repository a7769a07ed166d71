#include "engine/KyFileFetch.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "engine/KyTferClientConstants.h"
#include "platform/KyDlog.h"

namespace ky_engine {

namespace {

constexpr char kFunction[] = "GetFileFromDevice";

}  // namespace

bool KyFileFetch::Request(const std::string& fileName, unsigned int fileSize, KyTferStatusMsg& result) {
    const auto job = m_record.AcceptFetch(fileName, fileSize, result);
    if (!job) return false;
    const int error =
        m_threads.Start(KyEngineThreads::MONITOR, "t-getFileMonitor", m_members.m_getFileMonitorThread, *job,
                        [this](const Transaction& own) { m_monitor.Watch(own.kind, own.requestNumber); });
    if (error != 0) m_record.SetUnmonitored(job->requestNumber);
    m_device.Send(fileName, PNT_CLIENT_FILE_REQ);
    return true;
}

void KyFileFetch::Ready() {
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange", "kick off file fetch thread");
    bool repeated = false;
    const auto job = m_record.AcceptReady(repeated);
    if (job) StartWorker(*job, repeated, m_members.m_fileFetchThread);
}

void KyFileFetch::StartWorker(const Transaction& job, bool repeated, pthread_t& handle) {
    const auto kind = repeated ? KyEngineThreads::REPEATED_WORKER : KyEngineThreads::WORKER;
    m_threads.Start(kind, "t-getFileWorker", handle, job,
                    [this](const Transaction& own) { GetFileFromDevice(own); });
}

void KyFileFetch::GetFileFromDevice() {
    try {
        GetFileFromDevice(m_record.Current());
    } catch (...) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, kFunction, "%s", kOutOfMemory);
    }
}

void KyFileFetch::GetFileFromDevice(const Transaction& job) {
    __dlog_printfex(KY_DLOG_NOTICE, kSource, kFunction, "Enter");
    try {
        if (m_record.BeginWorker(job)) Fetch(job);
    } catch (...) {
        m_record.FailWorkerOutOfMemory(job);
    }
    __dlog_printfex(KY_DLOG_NOTICE, kSource, kFunction, "Exit");
}

void KyFileFetch::Fetch(Transaction job) {
    __dlog_printfex(KY_DLOG_NOTICE, kSource, kFunction, "request file(%s) from pldproxy",
                    job.transferName.c_str());
    if (!job.leavesDirectory) m_device.FetchFile(job.transferName);
    if (!FinishFetch(job)) return;
    m_record.SetWrittenSize(0);
    const int status = m_device.Write(0, PNT_XFER_FILE_SIZE);
    if (status != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, kFunction,
                        "Could not set xfer file size back to zero. status(%d)", status);
    }
}

// @return false if the device must not be told
bool KyFileFetch::FinishFetch(Transaction& job) {
    unsigned long long size = 0;
    const bool present = !job.leavesDirectory && GetFileSize(job.path, size);
    switch (m_record.Claim(job, present, size)) {
        case FetchOutcome::MISSING:
            return HandleMissingFile(job);
        case FetchOutcome::WRONG_SIZE:
            return HandleWrongSize(job, size);
        case FetchOutcome::COMPLETE:
            return MoveFile(job);
        default:
            __dlog_printfex(KY_DLOG_WARNING, kSource, kFunction,
                            "The transaction has been replaced; its file(%s) is removed", job.path.c_str());
            return false;
    }
}

// Catches exceptions here: only its worker ends a claimed transaction.
bool KyFileFetch::MoveFile(const Transaction& job) {
    try {
        HandleCompleteFile(job);
        return true;
    } catch (...) {
        m_record.FailWorkerOutOfMemory(job);
        return false;
    }
}

bool KyFileFetch::HandleMissingFile(const Transaction& job) {
    const std::string text =
        "Failed to get file(" + job.transferName + ") from device. and " + "place it here(" + job.path + ")";
    const bool tellDevice = m_record.FailFetch(job, text);
    __dlog_printfex(KY_DLOG_ERROR, kSource, kFunction, "%s", text.c_str());
    return tellDevice;
}

void KyFileFetch::HandleCompleteFile(const Transaction& job) {
    const std::string text =
        "Retrieved file(" + job.transferName + ") successfully. and placed it " + "in (" + job.path + ")";
    __dlog_printfex(KY_DLOG_NOTICE, kSource, kFunction, "%s", text.c_str());
    const std::string finalPath = job.downloadDirectory + job.transferName;
    __dlog_printfex(KY_DLOG_NOTICE, kSource, kFunction, "rename %s --> %s", job.path.c_str(),
                    finalPath.c_str());
    if (rename(job.path.c_str(), finalPath.c_str()) != 0) {
        const int error = errno;
        __dlog_printfex(KY_DLOG_ERROR, kSource, kFunction,
                        "Failed to move file(%s) --> file(%s) errno(%d) - %s", job.path.c_str(),
                        finalPath.c_str(), error, strerror(error));
    }
    if (job.worker == Transaction::CLAIMED) m_record.CompleteFetch(job, text);
    m_device.Send(kRequestSuccess, PNT_CLIENT_FILE_REQ);
}

bool KyFileFetch::HandleWrongSize(const Transaction& job, unsigned long long size) {
    const std::string text = "Failed to get file(" + job.transferName + ") from device. " + "Expecting(" +
                             std::to_string(job.expectedSize) + ") bytes only received(" +
                             std::to_string(size) + ") bytes.";
    const bool tellDevice = m_record.FailFetch(job, text);
    if (tellDevice) m_device.Send(kRequestError, PNT_CLIENT_FILE_REQ);
    __dlog_printfex(KY_DLOG_ERROR, kSource, kFunction, "%s", text.c_str());
    return tellDevice;
}

}  // namespace ky_engine
