#include "engine/KyFilePush.h"

#include <unistd.h>

#include <cstdio>

#include "engine/KyEngineTime.h"
#include "engine/KyTferClientConstants.h"
#include "platform/KyDlog.h"

namespace ky_engine {

namespace {

constexpr char kRequestFunction[] = "PutFileToDevRequest";
constexpr char kWorkerFunction[] = "PutFileToDevice";
constexpr unsigned int kPauseBeforeNameSeconds = 1;

}  // namespace

void KyFilePush::Request(const std::string& directory, const std::string& fileName, KyTferStatusMsg& result) {
    const std::string stagedPath = std::string(kStagingDirectory) + "/" + fileName;
    if (!Stage(directory + "/" + fileName, stagedPath, result)) return;
    Transaction job;
    try {
        unsigned int size = 0;
        if (!MeasureStaged(stagedPath, size, result)) return;
        job = Announce(fileName, stagedPath, size, result);
    } catch (...) {
        unlink(stagedPath.c_str());  // every failed request removes the file
        throw;
    }
    if (result.GetStatus() != KyTferStatusMsg::TFER_STATUS_INPROGRESS) return;
    const int error =
        m_threads.Start(KyEngineThreads::WORKER, "t-putDevFileWorker", m_members.m_putFileThread, job,
                        [this](const Transaction& own) { PutFileToDevice(own); });
    // Returns the result in progress: the device has accepted the push. The record must not stay in progress.
    if (error != 0) End(job, false);
}

// Removes a file that cannot be moved.
bool KyFilePush::Stage(const std::string& sourcePath, const std::string& stagedPath,
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
    m_record.FailStaging("Failed to move file(" + sourcePath + ") to (" + stagedPath + ")", result);
    return false;
}

bool KyFilePush::MeasureStaged(const std::string& stagedPath, unsigned int& size, KyTferStatusMsg& result) {
    unsigned long long bytes = 0;
    if (GetFileSize(stagedPath, bytes)) {
        size = SaturateTo32Bits(bytes);
        return true;
    }
    const std::string text = "Failed to get size for file(" + stagedPath + ")";
    m_record.FailStaging(text, result);
    __dlog_printfex(KY_DLOG_ERROR, kSource, kRequestFunction, "%s", text.c_str());
    unlink(stagedPath.c_str());
    return false;
}

// Writes the size and, a second later, the transfer name. Writes the name even if the size write failed.
Transaction KyFilePush::Announce(const std::string& fileName, const std::string& stagedPath,
                                 unsigned int size, KyTferStatusMsg& result) {
    m_record.SetWrittenSize(size);
    __dlog_printfex(KY_DLOG_NOTICE, kSource, kRequestFunction, "Write file size to server(%d)",
                    static_cast<int>(size));
    const int sizeStatus = m_device.Write(size, PNT_XFER_FILE_SIZE);
    const std::atomic<bool> never{false};
    SleepUnlessStopped(kPauseBeforeNameSeconds, never);
    Transaction push;
    push.kind = Transaction::PUSH;
    push.originalName = fileName;
    push.expectedSize = size;
    push.SetFile(NextTransferName(), std::string(kStagingDirectory) + "/");
    const int nameStatus = m_device.Send(push.transferName, PNT_XFER_FILE_NAME);

    const bool announced = sizeStatus == 0 && nameStatus == 0;
    if (!announced) {
        __dlog_printfex(
            KY_DLOG_ERROR, kSource, kRequestFunction,
            "Could not write either the transfer file name or the transfer file size to managed device "
            "s1(%d) s2(%d)",
            sizeStatus, nameStatus);
        // Before the update: a reader of the failed record must find the file removed.
        unlink(stagedPath.c_str());
    }
    return m_record.AcceptPush(std::move(push), announced, result);
}

std::string KyFilePush::NextTransferName() {
    char name[32];
    snprintf(name, sizeof name, "%u-%05d", static_cast<unsigned int>(m_members.m_deviceId.load()),
             KyTferClientMembers::m_genPutFileName.fetch_add(1));
    return name;
}

void KyFilePush::PutFileToDevice() {
    try {
        PutFileToDevice(m_record.LastPush());
    } catch (...) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, kWorkerFunction, "%s", kOutOfMemory);
    }
}

void KyFilePush::PutFileToDevice(const Transaction& job) {
    const char* const original = job.originalName.c_str();
    const char* const name = job.transferName.c_str();
    __dlog_printfex(KY_DLOG_NOTICE, kSource, kWorkerFunction,
                    "PLD Transfer Start orig file(%s) xfer file(%s)", original, name);
    const bool pushed = m_device.PushFile(job.directory, job.originalName, job.transferName);
    if (pushed) {
        __dlog_printfex(KY_DLOG_NOTICE, kSource, kWorkerFunction,
                        "PLD Transfer of orig file(%s) as xfer file(%s) complete", original, name);
    } else {
        __dlog_printfex(KY_DLOG_ERROR, kSource, kWorkerFunction,
                        "PLD Transfer of orig file(%s) as xfer file(%s) failed", original, name);
    }
    End(job, pushed);
}

void KyFilePush::End(const Transaction& job, bool pushed) {
    try {
        m_record.EndPush(job, pushed);
    } catch (...) {
        m_record.FailWorkerOutOfMemory(job);
    }
}

}  // namespace ky_engine
