#ifndef ENGINE_KYSTATUSRECORD_H
#define ENGINE_KYSTATUSRECORD_H

#include <pthread.h>

#include <array>
#include <atomic>
#include <optional>
#include <string>
#include <string_view>

#include "engine/KyTferClientMembers.h"
#include "engine/KyTransaction.h"
#include "messages/KyTferStatusMsg.h"

namespace ky_engine {

/// Differences between the monitor of a fetch and of a listing. A null text is not logged or recorded.
struct MonitorRules {
    const char* function;            ///< named in log lines
    Transaction::Kind kind;          ///< FETCH or LISTING
    long long limitSeconds;          ///< time limit of a transaction
    const char* completeText;        ///< recorded when the arriving file has its expected size
    const char* completeLog;         ///< logged when completeText is recorded
    const char* workerCompletedLog;  ///< logged if the worker has completed the transaction
    const char* noTransactionLog;    ///< logged if the record has no transaction
    const char* timeOutText;         ///< recorded by the poll that detects the time-out
    const char* finalText;           ///< recorded when polling ends without a complete file
    const char* finalLog;            ///< logged when polling ends without a complete file
};

/// The limits and texts of a fetch or of a listing.
const MonitorRules& RulesOf(Transaction::Kind kind);

/// Result of one poll of a monitor.
struct Poll {
    enum Result { CONTINUE, EXIT, TIMED_OUT };

    Result result = CONTINUE;
    const char* logLine = nullptr;  ///< to log before the monitor exits; may be null
    unsigned int size = 0;          ///< of the arriving file, in bytes
    unsigned int expectedSize = 0;
    bool logSize = false;                ///< the size has changed since it was logged
    std::string path;                    ///< of the arriving file; set for a log line only
    unsigned long long changeCount = 0;  ///< for KyStatusRecord::WaitForChange
};

/// What a worker must do with its fetched file.
enum class FetchOutcome {
    MISSING,     ///< there is no file
    WRONG_SIZE,  ///< its size is not the expected one
    COMPLETE,    ///< move it
    REPLACED,    ///< nothing: the transaction is replaced, and its file has been removed
};

/// Owns the status record. Every write is an operation of this class. An operation takes the request mutex, checks
/// that its caller may write, and makes one update: status, text, names and sizes change together or not at all.
///
/// Terms:
/// - The current transaction is the latest fetch or listing. A push runs beside it and replaces nothing.
/// - A transaction is open from its acceptance until an update ends it.
/// - A transaction is replaced when another fetch or listing becomes current, or when Abandon ends it.
/// - A transaction is reported when its monitor has recorded the file as complete.
/// - A worker with the complete file claims the transaction before it moves the file. Time-outs and cancels do not
///   end a claimed transaction. A request replaces a claimed transaction only if that transaction is reported.
/// - The active flag (KyTferClientMembers::m_transactionActive) keeps the monitors polling.
/// - The record shows the transaction that wrote the last update. An update of another transaction also writes the
///   names and sizes of that transaction.
///
/// Who may write which update. `reader` is a status call, or the next request; `device` is a
/// point change:
///
///     writer    update                      condition and effect
///     --------  --------------------------  ------------------------------------------------------------------
///     request   fetch IN PROGRESS           the record is not in progress, and no push has overwritten an open fetch
///                                           or listing in it; replaces all earlier transactions
///     request   listing IN PROGRESS         reserved on the same condition; the reservation replaces all earlier
///                                           transactions; written after the device has been asked
///     request   push IN PROGRESS or FAIL    always; replaces nothing
///     device    name of the listing file    the listing is current; reopens an ended listing; replaces the worker
///                                           of another name; waits while a claimed file is moved
///     device    bytes requested             the record shows the current transaction, or none is open. The size is
///                                           also the expected one, unless the transaction is reported or claimed.
///                                           An echo of an own write changes nothing while a transaction is open
///     device    listing FAIL ("NONE")       no monitor watches the listing; otherwise clears the active flag only
///     worker    IN PROGRESS                 not replaced, not claimed; reopens an ended transaction
///     worker    FAIL                        not replaced, not claimed; ends it if no monitor watches it
///     worker    COMPLETE                    claimed by this worker
///     push      COMPLETE or FAIL            no fetch or listing has become current since
///     monitor   IN PROGRESS, COMPLETE       its request is current and open; COMPLETE reports it
///     monitor   FAIL at the end             its request is current, and not claimed; after the time limit, "NONE" or
///                                           Stop
///     reader    FAIL by deadline            no monitor watches it, and its deadline has passed
///     request   FAIL, cancelled             something is in progress; replaces all
///     worker,   FAIL, out of memory         not replaced, not claimed by another worker; needs no memory
///     monitor
///
/// The worker of a replaced transaction writes nothing, tells the device nothing and removes its file. If the
/// transaction is reported, it moves the file and tells the device.
///
/// Any thread may call any operation. Operations may throw std::bad_alloc. They block for the mutex and for one
/// `stat` or `unlink`. WaitForChange also waits for a change; SetListingFile and Abandon also wait while a claimed
/// file is moved. No other lock is taken while the request mutex is held.
class KyStatusRecord {
public:
    explicit KyStatusRecord(KyTferClientMembers& members);
    ~KyStatusRecord();
    KyStatusRecord(const KyStatusRecord&) = delete;
    KyStatusRecord& operator=(const KyStatusRecord&) = delete;

    /// A copy of the record. First ends an unmonitored transaction after its deadline.
    KyTferStatusMsg Copy();

    /// The record's request type. Does not take the mutex.
    KyTferStatusMsg::TferRequestType RequestType() const { return m_requestType; }

    /// The file size that was requested, announced or written last, in bytes. Init writes it to the file size point.
    unsigned int XferFileSize();

    // Requests. `result` receives a copy of the record.

    /// @return the new transaction; none, with nothing changed, if one is in progress
    std::optional<Transaction> AcceptFetch(const std::string& transferName, unsigned int size,
                                           KyTferStatusMsg& result);

    /// Makes a listing current without an update. AcceptListing or RefuseListing follows.
    /// @return none if a transaction is in progress
    std::optional<Transaction> ReserveListing();
    /// @return false if the listing has been abandoned; `result` then shows that
    bool AcceptListing(const Transaction& listing, KyTferStatusMsg& result);
    void RefuseListing(const Transaction& listing);

    /// Stores an answer of the device that comes before AcceptListing. TakeEarlyAnswer returns the stored answer.
    /// @return false, with nothing stored, if no listing is reserved
    bool KeepEarlyAnswer(const std::string& answer);
    /// @return the answer; empty if there is none, which ends the reservation
    std::string TakeEarlyAnswer();

    /// Fails a push whose file could not be staged.
    void FailStaging(const std::string& text, KyTferStatusMsg& result);
    /// Notes the size that the card writes to the device's size point.
    void SetWrittenSize(unsigned int size);
    /// @param announced  true if the device has taken size and name; false records a failed push
    Transaction AcceptPush(Transaction push, bool announced, KyTferStatusMsg& result);

    /// Gives a request whose monitor thread could not be started a deadline instead.
    void SetUnmonitored(unsigned long long requestNumber);

    /// Ends the current transaction, or the push that the record shows, as failed. Waits while a claimed file is
    /// moved; that transaction then completes and is not abandoned.
    struct Abandoned {
        bool any = false;               ///< something was in progress
        bool unanswered = false;        ///< the device has not answered it yet
        unsigned long long number = 0;  ///< for IsCurrent
    };
    Abandoned Abandon(const std::string& text, KyTferStatusMsg& record);

    /// False once another fetch or listing has become current, or after Abandon.
    bool IsCurrent(unsigned long long number);

    // Answers of the device. AcceptReady and SetListingFile return the worker's job, or none if the current
    // transaction is of another kind. `repeated` is set if the device has answered before. `early` marks an
    // answer from TakeEarlyAnswer.

    /// Handles "READY".
    std::optional<Transaction> AcceptReady(bool& repeated);
    /// Handles the name of a listing file.
    std::optional<Transaction> SetListingFile(const std::string& transferName, bool early, bool& repeated);
    /// Handles "NONE": the device has no listing.
    void NoListing(bool early);
    void SetAnnouncedSize(unsigned int size, bool echo);

    // Workers.

    /// @return false if the transaction has been replaced
    bool BeginWorker(const Transaction& job);
    /// Decides what the worker must do with its fetched file. Sets the job's expected size. Sets `job.worker` to
    /// CLAIMED if the worker must call CompleteFetch.
    FetchOutcome Claim(Transaction& job, bool present, unsigned long long size);
    /// @return false if the transaction is replaced and not reported: the worker must tell the device nothing
    bool FailFetch(const Transaction& job, const std::string& text);
    void CompleteFetch(const Transaction& job, const std::string& text);
    void EndPush(const Transaction& push, bool pushed);

    // Monitors.

    /// @param end         of the time limit, in wall-clock seconds
    /// @param sizeLogged  the size that the monitor has logged last
    Poll PollFile(const MonitorRules& rules, unsigned long long requestNumber, long long end,
                  unsigned int sizeLogged);
    /// Fails a transaction that is still open after the monitor's last poll.
    void EndPolling(const MonitorRules& rules, unsigned long long requestNumber, bool afterTimeOut);
    /// Waits for a change after the poll that returned `changeCount`, at most for this time.
    void WaitForChange(unsigned long long changeCount, unsigned int milliseconds);
    /// Ends all waits of monitors. Stop calls it.
    void WakeMonitors();

    // For thread bodies that a user calls: they work on the current transaction.

    Transaction Current();
    unsigned long long CurrentRequest();
    Transaction LastPush();
    /// Sets the record in progress, or failed. @return false if a transaction has begun after number `last`
    bool HoldForPush(unsigned long long last, bool inProgress);
    unsigned long long LastNumber();

    // A thread has run out of memory.

    void FailWorkerOutOfMemory(const Transaction& job);
    void FailMonitorOutOfMemory(unsigned long long requestNumber);

private:
    struct ReportedFile {
        unsigned long long number = 0;
        unsigned int size = 0;
    };

    bool IsOpen() const KY_REQUIRES(m_members.m_requestMutex);
    bool InProgress() const KY_REQUIRES(m_members.m_requestMutex);
    bool IsMonitored(unsigned long long requestNumber) const KY_REQUIRES(m_members.m_requestMutex);
    const ReportedFile* FindReported(unsigned long long number) const KY_REQUIRES(m_members.m_requestMutex);
    void EndIfOverdue() KY_REQUIRES(m_members.m_requestMutex);
    Transaction NextJob(bool& repeated) KY_REQUIRES(m_members.m_requestMutex);
    void AssignNumber(Transaction& transaction) const KY_REQUIRES(m_members.m_requestMutex);
    static void Describe(const Transaction& transaction, KyTferStatusMsg& update);
    void Commit(KyTferStatusMsg& update, unsigned long long number) KY_REQUIRES(m_members.m_requestMutex);
    void WriteStatus(const Transaction& transaction, KyTferStatusMsg::TferStatus status,
                     std::string_view text) KY_REQUIRES(m_members.m_requestMutex);
    void WriteInProgress() KY_REQUIRES(m_members.m_requestMutex);
    void Reopen() KY_REQUIRES(m_members.m_requestMutex);
    void EndCurrent() KY_REQUIRES(m_members.m_requestMutex);
    void WaitForClaimedMove() KY_REQUIRES(m_members.m_requestMutex);
    void NotifyChange() KY_REQUIRES(m_members.m_requestMutex);
    void RemoveFetchedFile(const Transaction& job) const KY_REQUIRES(m_members.m_requestMutex);
    void FailOutOfMemory(const Transaction& job) KY_REQUIRES(m_members.m_requestMutex);
    bool ContinuePolling(const MonitorRules& rules, unsigned long long requestNumber, Poll& poll)
        KY_REQUIRES(m_members.m_requestMutex);
    bool MeasureFile(Poll& poll, unsigned int sizeLogged) const KY_REQUIRES(m_members.m_requestMutex);
    void ReportComplete(const MonitorRules& rules, unsigned int size) KY_REQUIRES(m_members.m_requestMutex);
    void TimeOut(const MonitorRules& rules, Poll& poll) KY_REQUIRES(m_members.m_requestMutex);

    KyTferClientMembers& m_members;
    pthread_cond_t m_changed;
    std::atomic<KyTferStatusMsg::TferRequestType> m_requestType{KyTferStatusMsg::TFER_REQ_NONE};

    unsigned long long m_lastNumber KY_GUARDED_BY(m_members.m_requestMutex) = 0;
    Transaction m_current
        KY_GUARDED_BY(m_members.m_requestMutex);  // of kind NONE before the first fetch, and after Abandon
    Transaction m_previous KY_GUARDED_BY(m_members.m_requestMutex);  // a reserved listing
    Transaction m_lastPush KY_GUARDED_BY(m_members.m_requestMutex);
    // Number of the transaction that the record shows.
    unsigned long long m_shownNumber KY_GUARDED_BY(m_members.m_requestMutex) = 0;
    bool m_listingReserved KY_GUARDED_BY(m_members.m_requestMutex) = false;
    std::string m_earlyAnswer KY_GUARDED_BY(m_members.m_requestMutex);
    // The last reported transactions. Their workers may still have to move the file.
    std::array<ReportedFile, 8> m_reported KY_GUARDED_BY(m_members.m_requestMutex);
    std::size_t m_nextReported KY_GUARDED_BY(m_members.m_requestMutex) = 0;
    unsigned long long m_changeCount KY_GUARDED_BY(m_members.m_requestMutex) = 0;
};

}  // namespace ky_engine

#endif
