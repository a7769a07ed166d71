#include "engine/KyTransferMonitor.h"

#include "engine/KyEngineTime.h"
#include "engine/KyTferClientConstants.h"
#include "platform/KyDlog.h"

namespace ky_engine {

namespace {

constexpr unsigned int kNoSizeLogged = 2147483647;

constexpr char kPushFunction[] = "MonitorPutFileRequest";
constexpr long long kPushLimitSeconds = 180;

void LogStart(int level, const char* function, long long start, long long end) {
    __dlog_printfex(level, kSource, function, "startTime(%lu) endTime(%lu) Diff(%lu)",
                    static_cast<unsigned long>(start), static_cast<unsigned long>(end),
                    static_cast<unsigned long>(end - start));
}

void LogPoll(const MonitorRules& rules, const Poll& poll, unsigned int& sizeLogged) {
    const auto size = static_cast<int>(poll.size);
    if (poll.logSize) {
        __dlog_printfex(KY_DLOG_NOTICE, kSource, rules.function,
                        "Looking for file(%s) bytesreq(%d) haverec(%d)", poll.path.c_str(),
                        static_cast<int>(poll.expectedSize), size);
        sizeLogged = poll.size;
    }
    if (poll.result == Poll::TIMED_OUT) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, rules.function,
                        "Timed out waiting for file transfer(%s) bytes transferred(%d)", poll.path.c_str(),
                        size);
    }
    if (poll.logLine != nullptr) {
        __dlog_printfex(KY_DLOG_NOTICE, kSource, rules.function, "%s", poll.logLine);
    }
}

}  // namespace

void KyTransferMonitor::Watch(Transaction::Kind kind, unsigned long long requestNumber) {
    try {
        Run(RulesOf(kind), requestNumber);
    } catch (...) {
        m_record.FailMonitorOutOfMemory(requestNumber);
    }
}

void KyTransferMonitor::Run(const MonitorRules& rules, unsigned long long requestNumber) {
    const long long start = WallClockSeconds();
    const long long end = start + rules.limitSeconds;
    LogStart(KY_DLOG_NOTICE, rules.function, start, end);
    unsigned int sizeLogged = kNoSizeLogged;
    bool timedOut = false;
    bool goOn = m_active;
    while (goOn) {
        const Poll poll = m_record.PollFile(rules, requestNumber, end, sizeLogged);
        LogPoll(rules, poll, sizeLogged);
        if (poll.result == Poll::EXIT) return;
        timedOut = poll.result == Poll::TIMED_OUT;
        if (timedOut) break;
        if (m_pauseMs != 0) m_record.WaitForChange(poll.changeCount, m_pauseMs);
        // Returns at once while the flag is set; otherwise gives the worker a second.
        SleepUnlessStopped(1, m_active);
        goOn = m_active && WallClockSeconds() < end;
    }
    m_record.EndPolling(rules, requestNumber, timedOut);
    __dlog_printfex(KY_DLOG_NOTICE, kSource, rules.function, "%s", rules.finalLog);
}

void KyTransferMonitor::HoldForPush() {
    try {
        Hold();
    } catch (...) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, kPushFunction, "%s", kOutOfMemory);
    }
}

void KyTransferMonitor::Hold() {
    const unsigned long long last = m_record.LastNumber();
    const long long start = WallClockSeconds();
    const long long end = start + kPushLimitSeconds;
    LogStart(KY_DLOG_TRACE, kPushFunction, start, end);
    while (m_active && WallClockSeconds() < end) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, kPushFunction,
                        "NOT IMPLEMENTED - DON'T KNOW WHAT TO LOOK FOR");
        if (!m_record.HoldForPush(last, true)) return;
        SleepUnlessStopped(1, m_active);
    }
    m_record.HoldForPush(last, false);
}

}  // namespace ky_engine
