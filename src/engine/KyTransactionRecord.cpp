#include "engine/KyTransactionRecord.h"

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

KyTransactionRecord::KyTransactionRecord(KyTferClientMembers& members) : m_members(members) {
    InitCondition(m_changed);
}

KyTransactionRecord::~KyTransactionRecord() {
    pthread_cond_destroy(&m_changed);
}

Status KyTransactionRecord::Copy() {
    KyRequestLock lock(m_members.m_requestMutex);
    EndOverdue();
    return m_members.m_status;
}

unsigned int KyTransactionRecord::XferFileSize() {
    KyRequestLock lock(m_members.m_requestMutex);
    return m_members.m_xferFileSize;
}

// --- What the rules ask

bool KyTransactionRecord::IsOpen() const {
    return m_current.kind != Transaction::NONE && !m_current.ended;
}

bool KyTransactionRecord::InProgress() const {
    const bool hidden = IsOpen() && m_shown != m_current.number;
    return hidden || m_members.m_status.GetStatus() == Status::TFER_STATUS_INPROGRESS;
}

bool KyTransactionRecord::Watches(unsigned long long request) const {
    return request == m_current.request && m_current.watched && m_current.worker != Transaction::COMPLETED;
}

const KyTransactionRecord::Reported* KyTransactionRecord::FindReported(unsigned long long number) const {
    for (const Reported& reported : m_reported) {
        if (number != 0 && reported.number == number) return &reported;
    }
    return nullptr;
}

bool KyTransactionRecord::IsCurrent(unsigned long long number) {
    KyRequestLock lock(m_members.m_requestMutex);
    return number == m_current.number;
}

// --- Writing rows

// Puts into `row` what the transaction is about.
void KyTransactionRecord::Show(const Transaction& transaction, Status& row) {
    const bool delivered = transaction.worker == Transaction::COMPLETED;
    row.SetFilePath(delivered ? transaction.downloadDirectory : transaction.directory);
    row.SetXferFileName(transaction.name);
    row.SetBytesRequested(transaction.expectedSize);
    if (!transaction.originalName.empty()) row.SetOrigFileName(transaction.originalName);
    if (transaction.kind != Transaction::PUSH) row.SetReqType(TypeOf(transaction.kind));
}

void KyTransactionRecord::Commit(Status& row, unsigned long long number) {
    m_members.m_status.Swap(row);
    m_requestType = m_members.m_status.GetReqType();
    m_shown = number;
}

// A monitor writes the same again and again, for which no memory is taken.
void KyTransactionRecord::Write(const Transaction& transaction, Status::TferStatus status,
                                std::string_view text) {
    Status& record = m_members.m_status;
    if (m_shown != transaction.number) {
        Status row(record);
        Show(transaction, row);
        row.SetStatusMsg(std::string(text));
        Commit(row, transaction.number);
    } else if (record.GetStatusMsg() != text) {
        record.SetStatusMsg(std::string(text));
    }
    record.SetBytesRequested(transaction.expectedSize);
    record.SetStatus(status);
}

// The text stays as it was.
void KyTransactionRecord::WriteInProgress() {
    const bool shown = m_shown == m_current.number;
    const std::string_view text =
        shown ? std::string_view(m_members.m_status.GetStatusMsg()) : kNothingToReport;
    Write(m_current, Status::TFER_STATUS_INPROGRESS, text);
}

void KyTransactionRecord::EndCurrent() {
    m_current.ended = true;
    m_listingReserved = false;
    m_members.m_transactionActive = false;
    Wake();
}

// A worker has the whole file, and is about to write the last row.
void KyTransactionRecord::AwaitClaim() {
    while (IsOpen() && m_current.worker == Transaction::CLAIMED)
        pthread_cond_wait(&m_changed, m_members.m_requestMutex.Native());
}

// The monitor may have left.
void KyTransactionRecord::Reopen() {
    if (!m_current.ended) return;
    m_current.ended = false;
    m_current.watched = false;
    m_current.deadline = WallClockSeconds() + RulesOf(m_current.kind).limitSeconds;
}

void KyTransactionRecord::EndOverdue() {
    if (!IsOpen() || m_current.watched || m_current.worker != Transaction::OPEN) return;
    if (WallClockSeconds() <= m_current.deadline) return;
    Write(m_current, Status::TFER_STATUS_FAIL, RulesOf(m_current.kind).finalText);
    EndCurrent();
}

// --- Requests

void KyTransactionRecord::Number(Transaction& transaction) const {
    transaction.number = transaction.request = m_lastNumber + 1;
    transaction.deadline = WallClockSeconds() + RulesOf(transaction.kind).limitSeconds;
}

std::optional<Transaction> KyTransactionRecord::AcceptFetch(const std::string& name, unsigned int size,
                                                            Status& result) {
    Transaction fetch;
    fetch.kind = Transaction::FETCH;
    fetch.Place(name, KyTferClientMembers::LandingDirectory());
    fetch.downloadDirectory = KyTferClientMembers::DownloadDirectory();
    fetch.expectedSize = size;
    KyRequestLock lock(m_members.m_requestMutex);
    EndOverdue();
    if (InProgress()) return std::nullopt;
    Number(fetch);
    Status row(m_members.m_status);
    Show(fetch, row);
    row.SetStatus(Status::TFER_STATUS_INPROGRESS);
    Transaction job(fetch);
    result = row;
    m_lastNumber = fetch.number;
    m_current = std::move(fetch);
    Commit(row, m_lastNumber);
    m_members.m_xferFileSize = size;
    m_members.m_transactionActive = true;
    return job;
}

// The record does not tell of it yet.
std::optional<Transaction> KyTransactionRecord::ReserveListing() {
    Transaction listing;
    listing.kind = Transaction::LISTING;
    listing.originalName = kRequestDirectory;
    listing.Place(kRequestDirectory, KyTferClientMembers::LandingDirectory());
    listing.downloadDirectory = KyTferClientMembers::DownloadDirectory();
    KyRequestLock lock(m_members.m_requestMutex);
    EndOverdue();
    if (InProgress()) return std::nullopt;
    Number(listing);
    listing.expectedSize = m_members.m_status.GetBytesRequested();
    Transaction job(listing);
    m_lastNumber = listing.number;
    m_before = std::exchange(m_current, std::move(listing));
    m_earlyAnswer.clear();
    m_listingReserved = true;
    return job;
}

bool KyTransactionRecord::AcceptListing(const Transaction& listing, Status& result) {
    KyRequestLock lock(m_members.m_requestMutex);
    Status row(m_members.m_status);
    const bool current = listing.number == m_current.number;
    if (current) {
        Show(m_current, row);
        row.SetStatus(Status::TFER_STATUS_INPROGRESS);
        row.SetStatusMsg(std::string(kListingRequested));
        row.SetBytesTransfered(0);
    }
    result = row;
    if (!current) return false;
    Commit(row, listing.number);
    m_members.m_transactionActive = true;
    return true;
}

// The record keeps its status. Only its kind is forgotten, so that no late answer of the device starts a worker.
void KyTransactionRecord::RefuseListing(const Transaction& listing) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (listing.number != m_current.number) return;
    m_listingReserved = false;
    m_current = std::move(m_before);
    m_current.watched = false;  // its monitor may have left meanwhile
    m_members.m_status.SetReqType(Status::TFER_REQ_NONE);
    m_requestType = Status::TFER_REQ_NONE;
}

// A "READY" is an answer to the transaction before.
bool KyTransactionRecord::KeepEarlyAnswer(const std::string& answer) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (m_listingReserved && answer != kRequestReady) m_earlyAnswer = answer;
    return m_listingReserved;
}

std::string KyTransactionRecord::TakeEarlyAnswer() {
    std::string answer;
    KyRequestLock lock(m_members.m_requestMutex);
    answer.swap(m_earlyAnswer);
    if (answer.empty()) m_listingReserved = false;
    return answer;
}

void KyTransactionRecord::Unwatch(unsigned long long request) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (request != m_current.request) return;
    m_current.watched = false;
    // Its worker may have failed it already, and has left the end to the monitor.
    const bool failed =
        m_shown == m_current.number && m_members.m_status.GetStatus() == Status::TFER_STATUS_FAIL;
    if (failed) EndCurrent();
}

void KyTransactionRecord::WroteSize(unsigned int size) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (!IsOpen()) m_members.m_xferFileSize = size;
}

// The names in the record stay, as nothing has been agreed with the device.
void KyTransactionRecord::FailStaging(const std::string& text, Status& result) {
    KyRequestLock lock(m_members.m_requestMutex);
    Status row(m_members.m_status);
    row.SetStatus(Status::TFER_STATUS_FAIL);
    row.SetStatusMsg(text);
    row.SetBytesTransfered(0);
    result = row;
    Commit(row, ++m_lastNumber);
}

Transaction KyTransactionRecord::AcceptPush(Transaction push, bool announced, Status& result) {
    KyRequestLock lock(m_members.m_requestMutex);
    Number(push);
    Status row(m_members.m_status);
    Show(push, row);
    row.SetStatus(announced ? Status::TFER_STATUS_INPROGRESS : Status::TFER_STATUS_FAIL);
    row.SetStatusMsg(std::string(announced ? kPushInProgress : kRequestFailed));
    Transaction kept(push);
    result = row;
    m_lastNumber = push.number;
    m_lastPush = std::move(kept);
    Commit(row, m_lastNumber);
    return push;
}

KyTransactionRecord::Abandoned KyTransactionRecord::Abandon(const std::string& text, Status& record) {
    KyRequestLock lock(m_members.m_requestMutex);
    AwaitClaim();
    EndOverdue();
    Abandoned abandoned;
    abandoned.any = IsOpen() || m_members.m_status.GetStatus() == Status::TFER_STATUS_INPROGRESS;
    Status row(m_members.m_status);
    if (abandoned.any) {
        Show(IsOpen() ? m_current : m_lastPush, row);
        row.SetStatus(Status::TFER_STATUS_FAIL);
        row.SetStatusMsg(text);
        row.SetReqType(Status::TFER_REQ_NONE);
    }
    record = row;
    if (!abandoned.any) return abandoned;
    abandoned.unanswered = IsOpen() && !m_current.answered;
    Transaction none;
    Number(none);
    m_lastNumber = abandoned.number = none.number;
    m_current = std::move(none);
    Commit(row, m_lastNumber);
    EndCurrent();
    return abandoned;
}

// --- The device

// The job of one more worker for the current transaction.
Transaction KyTransactionRecord::Answer(bool& repeated) {
    Transaction job(m_current);
    job.worker = Transaction::OPEN;
    repeated = std::exchange(m_current.answered, true);
    return job;
}

std::optional<Transaction> KyTransactionRecord::Ready(bool& repeated) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (m_current.kind != Transaction::FETCH) return std::nullopt;
    return Answer(repeated);
}

std::optional<Transaction> KyTransactionRecord::NameListing(const std::string& name, bool early,
                                                            bool& repeated) {
    std::string xferFileName(name);
    KyRequestLock lock(m_members.m_requestMutex);
    AwaitClaim();
    if (m_current.kind != Transaction::LISTING || early != m_listingReserved) return std::nullopt;
    if (IsOpen() && m_current.answered && m_current.name == name) return Answer(repeated);
    Transaction next(m_current);
    next.number = m_lastNumber + 1;
    next.Place(name, m_current.directory);
    next.expectedSize = m_members.m_xferFileSize;
    next.answered = true;
    next.worker = Transaction::OPEN;
    Transaction job(next);
    Status row(m_members.m_status);
    Show(next, row);
    if (row.GetStatus() != Status::TFER_STATUS_INPROGRESS || m_shown != m_current.number) {
        row.SetStatus(Status::TFER_STATUS_INPROGRESS);
        row.SetStatusMsg(std::string(kNothingToReport));
    }
    repeated = m_current.answered;
    m_lastNumber = next.number;
    m_current = std::move(next);
    Reopen();
    Commit(row, m_lastNumber);
    m_members.m_xferFileName.swap(xferFileName);
    return job;
}

void KyTransactionRecord::NoListing(bool early) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (m_current.kind != Transaction::LISTING || !IsOpen() || early != m_listingReserved) return;
    if (!m_current.watched && m_current.worker == Transaction::OPEN) {
        Write(m_current, Status::TFER_STATUS_FAIL, kListingRules.finalText);
        m_current.ended = true;
    }
    m_members.m_transactionActive = false;
    Wake();
}

void KyTransactionRecord::SizeChanged(unsigned int size, bool echo) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (IsOpen() && echo) return;
    // A file that has been reported complete had the right size.
    const bool unfinished =
        m_current.worker == Transaction::OPEN && FindReported(m_current.number) == nullptr;
    if (unfinished && !echo) m_current.expectedSize = size;
    m_members.m_xferFileSize = size;
    if (!IsOpen() || m_shown == m_current.number) m_members.m_status.SetBytesRequested(size);
}

// --- Workers

bool KyTransactionRecord::Begin(const Transaction& job) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (job.number != m_current.number) return false;
    if (m_current.worker != Transaction::OPEN) return true;
    WriteInProgress();
    Reopen();
    // A file that had been there before was reported complete. What counts is the one that comes now.
    for (Reported& reported : m_reported) {
        if (reported.number == job.number) reported.number = 0;
    }
    return true;
}

// Removes what a replaced worker has landed, unless the current transaction lands at the same place.
void KyTransactionRecord::Drop(const Transaction& job) const {
    const bool othersFile = m_current.kind != Transaction::NONE && m_current.path == job.path &&
                            m_current.worker != Transaction::COMPLETED;
    if (!othersFile) unlink(job.path.c_str());
}

Arrival KyTransactionRecord::Claim(Transaction& job, bool present, unsigned long long size) {
    KyRequestLock lock(m_members.m_requestMutex);
    const bool current = job.number == m_current.number;
    const Reported* const reported = FindReported(job.number);
    if (!current && reported == nullptr) {
        if (present) Drop(job);
        return Arrival::REPLACED;
    }
    job.expectedSize = reported != nullptr ? reported->size : m_current.expectedSize;
    if (!present) return Arrival::MISSING;
    if (size != job.expectedSize) return Arrival::OTHER_SIZE;
    if (!current || m_current.worker != Transaction::OPEN) return Arrival::WHOLE;
    // Until the last row no other transaction may begin in the place of one that has failed or timed out.
    if (!m_current.ended || reported == nullptr) {
        WriteInProgress();
        m_current.ended = false;
    }
    m_current.worker = job.worker = Transaction::CLAIMED;
    return Arrival::WHOLE;
}

// Leaves the active flag set: a monitor that still runs goes on until its time limit.
bool KyTransactionRecord::Fail(const Transaction& job, const std::string& text) {
    KyRequestLock lock(m_members.m_requestMutex);
    const bool replaced = job.number != m_current.number;
    if (replaced && FindReported(job.number) != nullptr) return true;
    if (replaced && !job.leavesDirectory) Drop(job);
    if (replaced) return false;
    if (m_current.worker != Transaction::OPEN) return true;
    Write(m_current, Status::TFER_STATUS_FAIL, text);
    m_members.m_status.SetBytesTransfered(m_current.expectedSize);
    if (!m_current.watched) m_current.ended = true;
    Wake();
    return true;
}

void KyTransactionRecord::Complete(const Transaction& job, const std::string& text) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (job.number != m_current.number) return;
    Status row(m_members.m_status);
    Show(m_current, row);
    row.SetFilePath(job.downloadDirectory);
    row.SetBytesTransfered(m_current.expectedSize);
    row.SetStatus(Status::TFER_STATUS_COMPLETE);
    row.SetStatusMsg(text);
    Commit(row, m_current.number);
    m_current.worker = Transaction::COMPLETED;
    EndCurrent();
}

void KyTransactionRecord::EndPush(const Transaction& push, bool pushed) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (push.number < m_current.request) return;
    Write(push, pushed ? Status::TFER_STATUS_COMPLETE : Status::TFER_STATUS_FAIL,
          pushed ? kTransferComplete : kRequestFailed);
}

// --- Monitors

// Looks whether the file is there. The size of a listing must have been announced before.
bool KyTransactionRecord::Measure(Poll& poll, unsigned int sizeLogged) const {
    poll.expectedSize = m_current.expectedSize;
    const bool measurable =
        m_current.kind == Transaction::FETCH || (m_current.answered && m_current.expectedSize != 0);
    unsigned long long size = 0;
    if (!measurable || m_current.leavesDirectory || !GetFileSize(m_current.path, size)) return false;
    poll.size = CountOf(size);
    poll.newSize = m_current.kind == Transaction::FETCH && poll.size != sizeLogged;
    if (poll.newSize) poll.path = m_current.path;
    return true;
}

Poll KyTransactionRecord::PollFile(const MonitorRules& rules, unsigned long long request, long long end,
                                   unsigned int sizeLogged) {
    Poll poll;
    poll.end = Poll::LEAVE;
    KyPollingLock lock(m_members.m_requestMutex);
    poll.change = m_changes;
    if (m_members.m_status.GetStatus() == Status::TFER_STATUS_NONE) {
        if (rules.noneFarewell != nullptr) m_members.m_transactionActive = false;
        poll.farewell = rules.noneFarewell;
        return poll;
    }
    if (m_current.kind != rules.kind) return poll;
    const bool completed = request == m_current.request && m_current.worker == Transaction::COMPLETED;
    if (completed) poll.farewell = rules.completedFarewell;
    if (!Watches(request) || m_current.ended) return poll;

    const bool present = Measure(poll, sizeLogged);
    if (present && poll.size == m_current.expectedSize) {
        Write(m_current, Status::TFER_STATUS_COMPLETE, rules.arrivedText);
        m_members.m_status.SetBytesTransfered(poll.size);
        m_reported[m_nextReported++ % m_reported.size()] = {m_current.number, m_current.expectedSize};
        EndCurrent();
        poll.farewell = rules.arrivedFarewell;
        return poll;
    }
    Write(m_current, Status::TFER_STATUS_INPROGRESS, present ? kTransferInProgress : kNothingToReport);
    if (present) m_members.m_status.SetBytesTransfered(poll.size);
    poll.end = Poll::GO_ON;
    if (WallClockSeconds() <= end || m_current.worker == Transaction::CLAIMED) return poll;

    poll.end = Poll::TIMED_OUT;
    poll.path = m_current.path;
    poll.size = m_members.m_status.GetBytesTransfered();
    if (rules.timeOutText != nullptr) {
        Write(m_current, Status::TFER_STATUS_FAIL, rules.timeOutText);
        EndCurrent();
    }
    return poll;
}

// After the time-out step, a worker or another name may have opened the transaction again.
void KyTransactionRecord::EndByTime(const MonitorRules& rules, unsigned long long request,
                                    bool afterTimeOut) {
    KyRequestLock lock(m_members.m_requestMutex);
    const bool expected = !m_current.ended || (afterTimeOut && m_shown == m_current.number);
    if (!Watches(request) || m_current.worker == Transaction::CLAIMED || !expected) return;
    Write(m_current, Status::TFER_STATUS_FAIL, rules.finalText);
    m_current.ended = true;
    if (rules.kind == Transaction::FETCH) m_members.m_transactionActive = false;
    Wake();
}

void KyTransactionRecord::Wake() {
    ++m_changes;
    pthread_cond_broadcast(&m_changed);
}

void KyTransactionRecord::WakeMonitors() {
    KyRequestLock lock(m_members.m_requestMutex);
    Wake();
}

void KyTransactionRecord::Wait(unsigned long long change, unsigned int milliseconds) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (m_changes == change) WaitFor(m_changed, m_members.m_requestMutex, milliseconds);
}

// --- Bodies on a user's threads

Transaction KyTransactionRecord::Current() {
    KyRequestLock lock(m_members.m_requestMutex);
    Transaction job(m_current);
    job.worker = Transaction::OPEN;
    return job;
}

unsigned long long KyTransactionRecord::CurrentRequest() {
    KyRequestLock lock(m_members.m_requestMutex);
    return m_current.request;
}

Transaction KyTransactionRecord::LastPush() {
    KyRequestLock lock(m_members.m_requestMutex);
    return m_lastPush;
}

unsigned long long KyTransactionRecord::LastNumber() {
    KyRequestLock lock(m_members.m_requestMutex);
    return m_lastNumber;
}

bool KyTransactionRecord::HoldForPush(unsigned long long last, bool inProgress) {
    KyRequestLock lock(m_members.m_requestMutex);
    if (last != m_lastNumber) return false;
    m_members.m_status.SetStatusMsg(std::string(inProgress ? kNothingToReport : kTimedOut));
    m_members.m_status.SetStatus(inProgress ? Status::TFER_STATUS_INPROGRESS : Status::TFER_STATUS_FAIL);
    return true;
}

// --- Out of memory

// The text is short enough to be stored in place.
void KyTransactionRecord::FailWithoutMemory(const Transaction& job) {
    if (m_shown == job.number) {
        m_members.m_status.SetStatusMsg(std::string(kOutOfMemory));
        m_members.m_status.SetStatus(Status::TFER_STATUS_FAIL);
    }
    if (job.number != m_current.number) return;
    m_current.worker = Transaction::OPEN;
    EndCurrent();
}

// A worker that has not written its last row has failed, even if a monitor has seen the whole file.
void KyTransactionRecord::EndWorkerWithoutMemory(const Transaction& job) {
    KyRequestLock lock(m_members.m_requestMutex);
    const bool unfinished = job.kind == Transaction::PUSH
                                ? m_members.m_status.GetStatus() == Status::TFER_STATUS_INPROGRESS
                                : m_current.worker == job.worker;
    if (unfinished) FailWithoutMemory(job);
}

void KyTransactionRecord::EndMonitorWithoutMemory(unsigned long long request) {
    KyRequestLock lock(m_members.m_requestMutex);
    const bool mine = Watches(request) && m_current.worker == Transaction::OPEN;
    if (mine && !m_current.ended) FailWithoutMemory(m_current);
}

}  // namespace ky_engine
