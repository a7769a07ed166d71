// The mechanism of the monitors, which is the same for every kind of transaction: when to poll, and how to
// end.
#include <sys/stat.h>
#include <time.h>

#include <climits>

#include "engine/KyTferClientConstants.h"
#include "engine/KyTransferMonitor.h"
#include "platform/KyDlog.h"

using namespace ky_engine;

namespace {

// No size has been logged yet.
constexpr unsigned int kNoSizeLogged = 2147483647;

}  // namespace

long long KyTferClient::WallClockSeconds() {
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

void KyTferClient::LogStart(int level, const char* function, long long start, long long end) {
    __dlog_printfex(level, kSource, function, "startTime(%lu) endTime(%lu) Diff(%lu)",
                    static_cast<unsigned long>(start), static_cast<unsigned long>(end),
                    static_cast<unsigned long>(end - start));
}

// A count of the record. A file that is larger than one can say must not look like a small one.
unsigned int KyTferClient::CountOf(unsigned long long size) {
    return size < UINT_MAX ? static_cast<unsigned int>(size) : UINT_MAX;
}

bool KyTferClient::LeavesDirectory(const std::string& name) {
    const std::string path = "/" + name + "/";
    return path.find("/../") != std::string::npos;
}

bool KyTferClient::GetFileSize(const std::string& path, unsigned long long& size) {
    struct stat info = {};
    if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
    size = static_cast<unsigned long long>(info.st_size);
    return true;
}

void KyTferClient::Describe(PollResult& result) const {
    result.path = m_status.GetFilePath() + m_status.GetXferFileName();
    result.bytesRequested = m_status.GetBytesRequested();
    result.bytesTransfered = m_status.GetBytesTransfered();
}

// Looks where the record says that the file arrives, and notes its size if it is there.
void KyTferClient::MeasureArrivingFile(PollResult& result) {
    unsigned long long size = 0;
    result.sighted = !LeavesDirectory(m_status.GetXferFileName()) && GetFileSize(result.path, size);
    if (!result.sighted) return;
    result.bytesTransfered = CountOf(size);
    m_status.SetBytesTransfered(result.bytesTransfered);
}

// The row that a poll writes. A file at its expected size ends the transaction, unless the worker has refused
// it: the worker sets the announced size back to 0, which an empty file would fit.
KyTferClient::PollResult KyTferClient::RecordProgress(PollResult result, unsigned long long transaction,
                                                      std::string_view arrivedText, const char* farewell) {
    const bool refused = m_failedByWorker == transaction;
    if (result.sighted && !refused && result.bytesTransfered == result.bytesRequested) {
        Record(KyTferStatusMsg::TFER_STATUS_COMPLETE, arrivedText);
        m_transactionActive = false;
        return result.Leave(farewell);
    }
    Record(KyTferStatusMsg::TFER_STATUS_INPROGRESS, result.sighted ? kTransferInProgress : kNothingToReport);
    return result;
}

void KyTferClient::Watch(const MonitorFlow& flow) {
    const unsigned long long transaction = TransactionOfThisThread();
    const long long start = WallClockSeconds();
    const long long end = start + flow.limitSeconds;
    LogStart(KY_DLOG_NOTICE, flow.function, start, end);
    unsigned int sizeLogged = kNoSizeLogged;
    bool timedOut = false;
    bool goOn = m_transactionActive;
    while (goOn) {
        const PollResult result = PollOnce(flow, transaction, end);
        LogPoll(flow, result, sizeLogged);
        if (result.end == PollResult::LEAVE) return;
        timedOut = result.end == PollResult::TIMED_OUT;
        if (timedOut) break;
        // Does not sleep while the transaction is active: the next poll follows at once. Once the flag has
        // been cleared this is the second that the monitor gives its worker.
        SleepUnlessStopped(1, m_transactionActive);
        goOn = m_transactionActive && WallClockSeconds() < end;
    }
    {
        KyRequestLock lock(m_requestMutex);
        (this->*flow.finish)(transaction, timedOut);
    }
    __dlog_printfex(KY_DLOG_NOTICE, kSource, flow.function, "%s", flow.farewell);
}

KyTferClient::PollResult KyTferClient::PollOnce(const MonitorFlow& flow, unsigned long long transaction,
                                                long long end) {
    KyPollingLock lock(m_requestMutex);
    PollResult result = (this->*flow.poll)(transaction);
    if (result.end == PollResult::GO_ON && WallClockSeconds() > end) {
        result.end = PollResult::TIMED_OUT;
        if (flow.timeOut != nullptr) (this->*flow.timeOut)();
    }
    return result;
}

void KyTferClient::LogPoll(const MonitorFlow& flow, const PollResult& result, unsigned int& sizeLogged) {
    if (flow.logsProgress && result.sighted && result.bytesTransfered != sizeLogged) {
        __dlog_printfex(KY_DLOG_NOTICE, kSource, flow.function,
                        "Looking for file(%s) bytesreq(%d) haverec(%d)", result.path.c_str(),
                        static_cast<int>(result.bytesRequested), static_cast<int>(result.bytesTransfered));
        sizeLogged = result.bytesTransfered;
    }
    if (result.farewell != nullptr) {
        __dlog_printfex(KY_DLOG_NOTICE, kSource, flow.function, "%s", result.farewell);
    }
    if (result.end == PollResult::TIMED_OUT) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, flow.function,
                        "Timed out waiting for file transfer(%s) bytes transferred(%d)", result.path.c_str(),
                        static_cast<int>(result.bytesTransfered));
    }
}
