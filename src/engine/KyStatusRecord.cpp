#include "engine/KyStatusRecord.h"

#include <unistd.h>

#include <utility>

#include "engine/KyEngineTime.h"
#include "engine/KyTferClientConstants.h"

namespace ky_engine {

namespace {

using Status = KyTferStatusMsg;

constexpr MonitorRules kFetchRules = {"MonitorGetFileRequest",
                                      Transaction::FETCH,
                                      180,
                                      kTransferComplete,
                                      "Leave success",
                                      "Leave success",
                                      nullptr,
                                      nullptr,
                                      kTimedOut,
                                      "Leave break out"};

constexpr MonitorRules kListingRules = {"MonitorGetDirRequest",
                                        Transaction::LISTING,
                                        60,
                                        "Directory File Transfer Complete",
                                        "Exit COMPLETE 2",
                                        "Exit COMPLETE 1",
                                        "Exit NONE",
                                        "File transfer timed out",
                                        "File transfer Failed - timedout",
                                        "Exit Bottom"};

Status::TferRequestType TypeOf(Transaction::Kind kind) {
    return kind == Transaction::FETCH ? Status::TFER_REQ_GET_FILE : Status::TFER_REQ_DIRECTORY;
}

}  // namespace

const MonitorRules& RulesOf(Transaction::Kind kind) {
    return kind == Transaction::FETCH ? kFetchRules : kListingRules;
}

KyStatusRecord::KyStatusRecord(KyTferClientMembers& members) : m_members(members) {
    InitCondition(m_changed);
}

KyStatusRecord::~KyStatusRecord() {
    pthread_cond_destroy(&m_changed);
}

Status KyStatusRecord::Copy() {
    KyRequestLock lock(m_members.m_requestMutex);
    EndIfOverdue();
    return m_members.m_status;
}

unsigned int KyStatusRecord::XferFileSize() {
    KyRequestLock lock(m_members.m_requestMutex);
    return m_members.m_xferFileSize;
}

// --- Conditions of the rules

bool KyStatusRecord::IsOpen() const {
    return m_current.kind != Transaction::NONE && !m_current.ended;
}

bool KyStatusRecord::InProgress() const {
    const bool overwritten = IsOpen() && m_shownNumber != m_current.number;  // by a push
    return overwritten || m_members.m_status.GetStatus() == Status::TFER_STATUS_INPROGRESS;
}

bool KyStatusRecord::IsMonitored(unsigned long long requestNumber) const {
    return requestNumber == m_current.requestNumber && m_current.monitored &&
           m_current.worker != Transaction::COMPLETED;
}

const KyStatusRecord::ReportedFile* KyStatusRecord::FindReported(unsigned long long number) const {
    for (const ReportedFile& reported : m_reported) {
        if (number != 0 && reported.number == number) return &reported;
    }
    return nullptr;
}

bool KyStatusRecord::IsCurrent(unsigned long long number) {
    KyRequestLock lock(m_members.m_requestMutex);
    return number == m_current.number;
}

// --- Updates

// Sets names, sizes and request type.
void KyStatusRecord::Describe(const Transaction& transaction, Status& update) {
    const bool delivered = transaction.worker == Transaction::COMPLETED;
    update.SetFilePath(delivered ? transaction.downloadDirectory : transaction.directory);
    update.SetXferFileName(transaction.transferName);
    update.SetBytesRequested(transaction.expectedSize);
    if (!transaction.originalName.empty()) update.SetOrigFileName(transaction.originalName);
    if (transaction.kind != Transaction::PUSH) update.SetReqType(TypeOf(transaction.kind));
}

void KyStatusRecord::Commit(Status& update, unsigned long long number) {
    m_members.m_status.Swap(update);
    m_requestType = m_members.m_status.GetReqType();
    m_shownNumber = number;
}

// A repeated update takes no memory: a monitor writes the same one in each poll.
void KyStatusRecord::WriteStatus(const Transaction& transaction, Status::TferStatus status,
                                 std::string_view text) {
    Status& record = m_members.m_status;
    if (m_shownNumber != transaction.number) {
        Status update(record);
        Describe(transaction, update);
        update.SetStatusMsg(std::string(text));
        Commit(update, transaction.number);
    } else if (record.GetStatusMsg() != text) {
        record.SetStatusMsg(std::string(text));
    }
    record.SetBytesRequested(transaction.expectedSize);
    record.SetStatus(status);
}

// Keeps the text of a shown transaction.
void KyStatusRecord::WriteInProgress() {
    const bool shown = m_shownNumber == m_current.number;
    const std::string_view text =
        shown ? std::string_view(m_members.m_status.GetStatusMsg()) : kNothingToReport;
    WriteStatus(m_current, Status::TFER_STATUS_INPROGRESS, text);
}

void KyStatusRecord::EndCurrent() {
    m_current.ended = true;
    m_listingReserved = false;
    m_members.m_transactionActive = false;
    NotifyChange();
}

// Waits until the worker of a claimed transaction has written its last update.
void KyStatusRecord::WaitForClaimedMove() {
    while (IsOpen() && m_current.worker == Transaction::CLAIMED)
        pthread_cond_wait(&m_changed, m_members.m_requestMutex.Native());
}

// Sets a deadline: the monitor may have exited.
void KyStatusRecord::Reopen() {
    if (!m_current.ended) return;
    m_current.ended = false;
    m_current.monitored = false;
    m_current.deadline = WallClockSeconds() + RulesOf(m_current.kind).limitSeconds;
}

void KyStatusRecord::EndIfOverdue() {
    if (!IsOpen() || m_current.monitored || m_current.worker != Transaction::UNCLAIMED) return;
    if (WallClockSeconds() <= m_current.deadline) return;
    WriteStatus(m_current, Status::TFER_STATUS_FAIL, RulesOf(m_current.kind).finalText);
    EndCurrent();
}

// --- Requests

void KyStatusRecord::AssignNumber(Transaction& transaction) const {
    transaction.number = transaction.requestNumber = m_lastNumber + 1;
    transaction.deadline = WallClockSeconds() + RulesOf(transaction.kind).limitSeconds;
}

std::optional<Transaction> KyStatusRecord::AcceptFetch(const std::string& transferName, unsigned int size,
                                                       Status& result) {
    Transaction fetch;
    fetch.kind = Transaction::FETCH;
    fetch.SetFile(transferName, KyTferClientMembers::LandingDirectory());
    fetch.downloadDirectory = KyTferClientMembers::DownloadDirectory();
    fetch.expectedSize = size;
    KyRequestLock lock(m_members.m_requestMutex);
    EndIfOverdue();
    if (InProgress()) return std::nullopt;
    AssignNumber(fetch);
    Status update(m_members.m_status);
    Describe(fetch, update);
    update.SetStatus(Status::TFER_STATUS_INPROGRESS);
    Transaction job(fetch);
    result = update;
    m_lastNumber = fetch.number;
    m_current = std::move(fetch);
    Commit(update, m_lastNumber);
    m_members.m_xferFileSize = size;
    m_members.m_transactionActive = true;
    return job;
}

std::optional<Transaction> KyStatusRecord::ReserveListing() {
    Transaction listing;
    listing.kind = Transaction::LISTING;
    listing.originalName = kRequestDirectory;
    listing.SetFile(kRequestDirectory, KyTferClientMembers::LandingDirectory());
    listing.downloadDirectory = KyTferClientMembers::DownloadDirectory();
    KyRequestLock lock(m_members.m_requestMutex);
    EndIfOverdue();
    if (InProgress()) return std::nullopt;
    AssignNumber(listing);
    listing.expectedSize = m_members.m_status.GetBytesRequested();
    Transaction job(listing);
    m_lastNumber = listing.number;
    m_previous = std::exchange(m_current, std::move(listing));
    m_earlyAnswer.clear();
    m_listingReserved = true;
    return job;
}

bool KyStatusRecord::AcceptListing(const Transaction& listing, Status& result) {
    KyRequestLock lock(m_members.m_requestMutex);
    Status update(m_members.m_status);
    const bool current = listing.number == m_current.number;
    if (current) {
        Describe(m_current, update);
        update.SetStatus(Status::TFER_STATUS_INPROGRESS);
        update.SetStatusMsg(std::string(kListingRequested));
        update.SetBytesTransfered(0);
    }
    result = update;
    if (!current) return false;
    Commit(update, listing.number);
    m_members.m_transactionActive = true;
    return true;
}

// Keeps the status. Clears the request type, so that a late answer of the device starts no worker.
void KyStatusRecord::RefuseListing(const Transaction& listing) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (listing.number != m_current.number) return;
    m_listingReserved = false;
    m_current = std::move(m_previous);
    m_current.monitored = false;  // its monitor may have exited meanwhile
    m_members.m_status.SetReqType(Status::TFER_REQ_NONE);
    m_requestType = Status::TFER_REQ_NONE;
}

// Drops "READY", which answers the previous transaction.
bool KyStatusRecord::KeepEarlyAnswer(const std::string& answer) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (m_listingReserved && answer != kRequestReady) m_earlyAnswer = answer;
    return m_listingReserved;
}

std::string KyStatusRecord::TakeEarlyAnswer() {
    std::string answer;
    KyRequestLock lock(m_members.m_requestMutex);
    answer.swap(m_earlyAnswer);
    if (answer.empty()) m_listingReserved = false;
    return answer;
}

void KyStatusRecord::SetUnmonitored(unsigned long long requestNumber) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (requestNumber != m_current.requestNumber) return;
    m_current.monitored = false;
    // A failed worker leaves it to the monitor to end the transaction, and there is none.
    const bool failed =
        m_shownNumber == m_current.number && m_members.m_status.GetStatus() == Status::TFER_STATUS_FAIL;
    if (failed) EndCurrent();
}

void KyStatusRecord::SetWrittenSize(unsigned int size) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (!IsOpen()) m_members.m_xferFileSize = size;
}

// Keeps the names in the record: the device has been told nothing.
void KyStatusRecord::FailStaging(const std::string& text, Status& result) {
    KyRequestLock lock(m_members.m_requestMutex);
    Status update(m_members.m_status);
    update.SetStatus(Status::TFER_STATUS_FAIL);
    update.SetStatusMsg(text);
    update.SetBytesTransfered(0);
    result = update;
    Commit(update, ++m_lastNumber);
}

Transaction KyStatusRecord::AcceptPush(Transaction push, bool announced, Status& result) {
    KyRequestLock lock(m_members.m_requestMutex);
    AssignNumber(push);
    Status update(m_members.m_status);
    Describe(push, update);
    update.SetStatus(announced ? Status::TFER_STATUS_INPROGRESS : Status::TFER_STATUS_FAIL);
    update.SetStatusMsg(std::string(announced ? kPushInProgress : kRequestFailed));
    Transaction kept(push);
    result = update;
    m_lastNumber = push.number;
    m_lastPush = std::move(kept);
    Commit(update, m_lastNumber);
    return push;
}

KyStatusRecord::Abandoned KyStatusRecord::Abandon(const std::string& text, Status& record) {
    KyRequestLock lock(m_members.m_requestMutex);
    WaitForClaimedMove();
    EndIfOverdue();
    Abandoned abandoned;
    abandoned.any = IsOpen() || m_members.m_status.GetStatus() == Status::TFER_STATUS_INPROGRESS;
    Status update(m_members.m_status);
    if (abandoned.any) {
        Describe(IsOpen() ? m_current : m_lastPush, update);
        update.SetStatus(Status::TFER_STATUS_FAIL);
        update.SetStatusMsg(text);
        update.SetReqType(Status::TFER_REQ_NONE);
    }
    record = update;
    if (!abandoned.any) return abandoned;
    abandoned.unanswered = IsOpen() && !m_current.answered;
    Transaction none;
    AssignNumber(none);
    m_lastNumber = abandoned.number = none.number;
    m_current = std::move(none);
    Commit(update, m_lastNumber);
    EndCurrent();
    return abandoned;
}

// --- The device

Transaction KyStatusRecord::NextJob(bool& repeated) {
    Transaction job(m_current);
    job.worker = Transaction::UNCLAIMED;
    repeated = std::exchange(m_current.answered, true);
    return job;
}

std::optional<Transaction> KyStatusRecord::AcceptReady(bool& repeated) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (m_current.kind != Transaction::FETCH) return std::nullopt;
    return NextJob(repeated);
}

std::optional<Transaction> KyStatusRecord::SetListingFile(const std::string& transferName, bool early,
                                                          bool& repeated) {
    std::string xferFileName(transferName);
    KyRequestLock lock(m_members.m_requestMutex);
    WaitForClaimedMove();
    if (m_current.kind != Transaction::LISTING || early != m_listingReserved) return std::nullopt;
    if (IsOpen() && m_current.answered && m_current.transferName == transferName) return NextJob(repeated);
    Transaction next(m_current);
    next.number = m_lastNumber + 1;
    next.SetFile(transferName, m_current.directory);
    next.expectedSize = m_members.m_xferFileSize;
    next.answered = true;
    next.worker = Transaction::UNCLAIMED;
    Transaction job(next);
    Status update(m_members.m_status);
    Describe(next, update);
    if (update.GetStatus() != Status::TFER_STATUS_INPROGRESS || m_shownNumber != m_current.number) {
        update.SetStatus(Status::TFER_STATUS_INPROGRESS);
        update.SetStatusMsg(std::string(kNothingToReport));
    }
    repeated = m_current.answered;
    m_lastNumber = next.number;
    m_current = std::move(next);
    Reopen();
    Commit(update, m_lastNumber);
    m_members.m_xferFileName.swap(xferFileName);
    return job;
}

void KyStatusRecord::NoListing(bool early) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (m_current.kind != Transaction::LISTING || !IsOpen() || early != m_listingReserved) return;
    if (!m_current.monitored && m_current.worker == Transaction::UNCLAIMED) {
        WriteStatus(m_current, Status::TFER_STATUS_FAIL, kListingRules.finalText);
        m_current.ended = true;
    }
    m_members.m_transactionActive = false;
    NotifyChange();
}

void KyStatusRecord::SetAnnouncedSize(unsigned int size, bool echo) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (IsOpen() && echo) return;
    // A reported file had the right size.
    const bool unfinished =
        m_current.worker == Transaction::UNCLAIMED && FindReported(m_current.number) == nullptr;
    if (unfinished && !echo) m_current.expectedSize = size;
    m_members.m_xferFileSize = size;
    if (!IsOpen() || m_shownNumber == m_current.number) m_members.m_status.SetBytesRequested(size);
}

// --- Workers

bool KyStatusRecord::BeginWorker(const Transaction& job) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (job.number != m_current.number) return false;
    if (m_current.worker != Transaction::UNCLAIMED) return true;
    WriteInProgress();
    Reopen();
    // An earlier report is about an old file. The worker fetches a new one.
    for (ReportedFile& reported : m_reported) {
        if (reported.number == job.number) reported.number = 0;
    }
    return true;
}

// Removes the file of a replaced transaction, unless the current one uses the same path.
void KyStatusRecord::RemoveFetchedFile(const Transaction& job) const {
    const bool usedByCurrent = m_current.kind != Transaction::NONE && m_current.path == job.path &&
                               m_current.worker != Transaction::COMPLETED;
    if (!usedByCurrent) unlink(job.path.c_str());
}

FetchOutcome KyStatusRecord::Claim(Transaction& job, bool present, unsigned long long size) {
    KyRequestLock lock(m_members.m_requestMutex);
    const bool current = job.number == m_current.number;
    const ReportedFile* const reported = FindReported(job.number);
    if (!current && reported == nullptr) {
        if (present) RemoveFetchedFile(job);
        return FetchOutcome::REPLACED;
    }
    job.expectedSize = reported != nullptr ? reported->size : m_current.expectedSize;
    if (!present) return FetchOutcome::MISSING;
    if (size != job.expectedSize) return FetchOutcome::WRONG_SIZE;
    if (!current || m_current.worker != Transaction::UNCLAIMED) return FetchOutcome::COMPLETE;
    // Reopens a failed or timed-out transaction: no other one may begin before the file has been moved.
    if (!m_current.ended || reported == nullptr) {
        WriteInProgress();
        m_current.ended = false;
    }
    m_current.worker = job.worker = Transaction::CLAIMED;
    return FetchOutcome::COMPLETE;
}

// Leaves the active flag set: a running monitor continues until its time limit.
bool KyStatusRecord::FailFetch(const Transaction& job, const std::string& text) {
    KyRequestLock lock(m_members.m_requestMutex);
    const bool replaced = job.number != m_current.number;
    if (replaced && FindReported(job.number) != nullptr) return true;
    if (replaced && !job.leavesDirectory) RemoveFetchedFile(job);
    if (replaced) return false;
    if (m_current.worker != Transaction::UNCLAIMED) return true;
    WriteStatus(m_current, Status::TFER_STATUS_FAIL, text);
    m_members.m_status.SetBytesTransfered(m_current.expectedSize);
    if (!m_current.monitored) m_current.ended = true;
    NotifyChange();
    return true;
}

void KyStatusRecord::CompleteFetch(const Transaction& job, const std::string& text) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (job.number != m_current.number) return;
    Status update(m_members.m_status);
    Describe(m_current, update);
    update.SetFilePath(job.downloadDirectory);
    update.SetBytesTransfered(m_current.expectedSize);
    update.SetStatus(Status::TFER_STATUS_COMPLETE);
    update.SetStatusMsg(text);
    Commit(update, m_current.number);
    m_current.worker = Transaction::COMPLETED;
    EndCurrent();
}

void KyStatusRecord::EndPush(const Transaction& push, bool pushed) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (push.number < m_current.requestNumber) return;
    WriteStatus(push, pushed ? Status::TFER_STATUS_COMPLETE : Status::TFER_STATUS_FAIL,
                pushed ? kTransferComplete : kRequestFailed);
}

// --- Monitors

// @return true if the file exists. A listing is measured only after the device has sent its name and size.
bool KyStatusRecord::MeasureFile(Poll& poll, unsigned int sizeLogged) const {
    poll.expectedSize = m_current.expectedSize;
    const bool measurable =
        m_current.kind == Transaction::FETCH || (m_current.answered && m_current.expectedSize != 0);
    unsigned long long size = 0;
    if (!measurable || m_current.leavesDirectory || !GetFileSize(m_current.path, size)) return false;
    poll.size = SaturateTo32Bits(size);
    poll.logSize = m_current.kind == Transaction::FETCH && poll.size != sizeLogged;
    if (poll.logSize) poll.path = m_current.path;
    return true;
}

// Checks that the monitor's transaction is current and open. Sets the log line of a monitor that must exit.
bool KyStatusRecord::ContinuePolling(const MonitorRules& rules, unsigned long long requestNumber,
                                     Poll& poll) {
    if (m_members.m_status.GetStatus() == Status::TFER_STATUS_NONE) {
        if (rules.noTransactionLog != nullptr) m_members.m_transactionActive = false;
        poll.logLine = rules.noTransactionLog;
        return false;
    }
    if (m_current.kind != rules.kind) return false;
    if (requestNumber == m_current.requestNumber && m_current.worker == Transaction::COMPLETED)
        poll.logLine = rules.workerCompletedLog;
    return IsMonitored(requestNumber) && !m_current.ended;
}

void KyStatusRecord::ReportComplete(const MonitorRules& rules, unsigned int size) {
    WriteStatus(m_current, Status::TFER_STATUS_COMPLETE, rules.completeText);
    m_members.m_status.SetBytesTransfered(size);
    m_reported[m_nextReported++ % m_reported.size()] = {m_current.number, m_current.expectedSize};
    EndCurrent();
}

void KyStatusRecord::TimeOut(const MonitorRules& rules, Poll& poll) {
    poll.result = Poll::TIMED_OUT;
    poll.path = m_current.path;
    poll.size = m_members.m_status.GetBytesTransfered();
    if (rules.timeOutText == nullptr) return;
    WriteStatus(m_current, Status::TFER_STATUS_FAIL, rules.timeOutText);
    EndCurrent();
}

Poll KyStatusRecord::PollFile(const MonitorRules& rules, unsigned long long requestNumber, long long end,
                              unsigned int sizeLogged) {
    Poll poll;
    poll.result = Poll::EXIT;
    KyPollingLock lock(m_members.m_requestMutex);
    poll.changeCount = m_changeCount;
    if (!ContinuePolling(rules, requestNumber, poll)) return poll;

    const bool present = MeasureFile(poll, sizeLogged);
    if (present && poll.size == m_current.expectedSize) {
        ReportComplete(rules, poll.size);
        poll.logLine = rules.completeLog;
        return poll;
    }
    WriteStatus(m_current, Status::TFER_STATUS_INPROGRESS, present ? kTransferInProgress : kNothingToReport);
    if (present) m_members.m_status.SetBytesTransfered(poll.size);
    poll.result = Poll::CONTINUE;
    if (WallClockSeconds() > end && m_current.worker != Transaction::CLAIMED) TimeOut(rules, poll);
    return poll;
}

// Since the time-out, a worker or another file name may have reopened the transaction.
void KyStatusRecord::EndPolling(const MonitorRules& rules, unsigned long long requestNumber,
                                bool afterTimeOut) {
    KyRequestLock lock(m_members.m_requestMutex);
    const bool mayEnd = !m_current.ended || (afterTimeOut && m_shownNumber == m_current.number);
    if (!IsMonitored(requestNumber) || m_current.worker == Transaction::CLAIMED || !mayEnd) return;
    WriteStatus(m_current, Status::TFER_STATUS_FAIL, rules.finalText);
    m_current.ended = true;
    if (rules.kind == Transaction::FETCH) m_members.m_transactionActive = false;
    NotifyChange();
}

void KyStatusRecord::NotifyChange() {
    ++m_changeCount;
    pthread_cond_broadcast(&m_changed);
}

void KyStatusRecord::WakeMonitors() {
    KyRequestLock lock(m_members.m_requestMutex);
    NotifyChange();
}

void KyStatusRecord::WaitForChange(unsigned long long changeCount, unsigned int milliseconds) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (m_changeCount == changeCount) WaitFor(m_changed, m_members.m_requestMutex, milliseconds);
}

// --- Thread bodies that a user calls

Transaction KyStatusRecord::Current() {
    KyRequestLock lock(m_members.m_requestMutex);
    Transaction job(m_current);
    job.worker = Transaction::UNCLAIMED;
    return job;
}

unsigned long long KyStatusRecord::CurrentRequest() {
    KyRequestLock lock(m_members.m_requestMutex);
    return m_current.requestNumber;
}

Transaction KyStatusRecord::LastPush() {
    KyRequestLock lock(m_members.m_requestMutex);
    return m_lastPush;
}

unsigned long long KyStatusRecord::LastNumber() {
    KyRequestLock lock(m_members.m_requestMutex);
    return m_lastNumber;
}

bool KyStatusRecord::HoldForPush(unsigned long long last, bool inProgress) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (last != m_lastNumber) return false;
    m_members.m_status.SetStatusMsg(std::string(inProgress ? kNothingToReport : kTimedOut));
    m_members.m_status.SetStatus(inProgress ? Status::TFER_STATUS_INPROGRESS : Status::TFER_STATUS_FAIL);
    return true;
}

// --- Out of memory

// The text fits into a std::string without an allocation.
void KyStatusRecord::FailOutOfMemory(const Transaction& job) {
    if (m_shownNumber == job.number) {
        m_members.m_status.SetStatusMsg(std::string(kOutOfMemory));
        m_members.m_status.SetStatus(Status::TFER_STATUS_FAIL);
    }
    if (job.number != m_current.number) return;
    m_current.worker = Transaction::UNCLAIMED;
    EndCurrent();
}

// Fails a reported transaction too, if its worker has not written its last update.
void KyStatusRecord::FailWorkerOutOfMemory(const Transaction& job) {
    KyRequestLock lock(m_members.m_requestMutex);
    const bool unfinished = job.kind == Transaction::PUSH
                                ? m_members.m_status.GetStatus() == Status::TFER_STATUS_INPROGRESS
                                : m_current.worker == job.worker;
    if (unfinished) FailOutOfMemory(job);
}

void KyStatusRecord::FailMonitorOutOfMemory(unsigned long long requestNumber) {
    KyRequestLock lock(m_members.m_requestMutex);
    const bool monitored = IsMonitored(requestNumber) && m_current.worker == Transaction::UNCLAIMED;
    if (monitored && !m_current.ended) FailOutOfMemory(m_current);
}

}  // namespace ky_engine
