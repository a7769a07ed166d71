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

/// What distinguishes the two monitors. Null texts are not logged or recorded.
struct MonitorRules {
    const char* function;            ///< named in log lines
    Transaction::Kind kind;          ///< FETCH or LISTING
    long long limitSeconds;          ///< how long a transaction may take
    const char* completeText;        ///< recorded when the whole file has landed
    const char* completeLog;         ///< logged then
    const char* workerCompletedLog;  ///< logged if the worker has completed the transaction
    const char* noTransactionLog;    ///< logged if there is no transaction
    const char* timeOutText;         ///< recorded at once when a poll finds the limit passed
    const char* finalText;           ///< recorded at the end otherwise
    const char* finalLog;            ///< logged then
};

/// The limits and texts of a fetch or of a listing.
const MonitorRules& RulesOf(Transaction::Kind kind);

/// What one poll of a monitor has found.
struct Poll {
    enum Result { CONTINUE, EXIT, TIMED_OUT };

    Result result = CONTINUE;
    const char* logLine = nullptr;  ///< to be logged by a monitor that leaves
    unsigned int size = 0;          ///< of the arriving file, in bytes
    unsigned int expectedSize = 0;
    bool logSize = false;  ///< the size is to be logged
    std::string path;      ///< of the arriving file, if its size or the time-out is to be logged
    unsigned long long changeCount = 0;  ///< for KyStatusRecord::Wait
};

/// What a worker has to do with the file that it has fetched.
enum class FetchOutcome {
    MISSING,     ///< there is none
    WRONG_SIZE,  ///< it is not the one that was expected
    COMPLETE,    ///< move it
    REPLACED,    ///< it has been removed: another transaction is current
};

/// The owner of the status record, and the rules of who may write it: every write is an operation here, which
/// takes the request mutex, checks whose write it is, and changes status, text, names and sizes together or
/// not at all.
///
/// One fetch or listing is current. A push runs beside it. A transaction is open from its acceptance until a row
/// has ended it. It is replaced when another fetch or listing becomes current, and when it is abandoned. Rows are
/// whole: a writer that takes the record over writes its names and sizes too. GetStatus returns the last row.
///
///     writer    row                         condition, and what else it does
///     --------  --------------------------  ------------------------------------------------------------------
///     request   fetch IN PROGRESS           the record is not in progress, and no open fetch or listing is hidden
///                                           behind the row of a push; replaces all before
///     request   listing IN PROGRESS         reserved on the same condition, which replaces all before; the row
///                                           comes after the device has been asked
///     request   push IN PROGRESS or FAIL    always; replaces nothing
///     device    name of the listing         the listing is current; IN PROGRESS if it was not; replaces the worker
///                                           of another name; waits for a claimed file to be moved
///     device    bytes requested             its own row or no open transaction is shown. Also the size that the
///                                           worker expects, unless the file has been reported complete or claimed.
///                                           The echo of an own write changes nothing while a transaction is open
///     device    listing FAIL ("NONE")       no monitor watches it; otherwise only the active flag is cleared
///     worker    IN PROGRESS                 not replaced, not claimed; opens a transaction that has ended
///     worker    FAIL                        not replaced, not claimed; ends it if no monitor watches it
///     worker    COMPLETE                    it has claimed the file (Claim). No time-out and no cancel ends a claimed
///                                           transaction; a request replaces it only if a monitor has reported it
///     push      COMPLETE or FAIL            no fetch or listing has become current since
///     monitor   IN PROGRESS, COMPLETE       its request is current and open; COMPLETE reports it
///     monitor   FAIL by time                the same, and no worker has claimed the file
///     reader    FAIL by time                no monitor watches it, and its deadline has passed
///     request   FAIL, cancelled             something is in progress; replaces all
///     worker,   FAIL, out of memory         not replaced, and claimed by no other; needs no memory
///     monitor
///
/// The worker of a replaced transaction writes nothing, tells the device nothing and removes its file, unless a
/// monitor has reported the file complete: then it moves the file and tells the device.
///
/// All operations may be called from any thread, and may throw std::bad_alloc. None blocks but for the mutex, one
/// `stat` or `unlink`, Wait, and where a claimed file is waited for. The request mutex is a leaf.
class KyStatusRecord {
public:
    explicit KyStatusRecord(KyTferClientMembers& members);
    ~KyStatusRecord();
    KyStatusRecord(const KyStatusRecord&) = delete;
    KyStatusRecord& operator=(const KyStatusRecord&) = delete;

    /// A copy of the record. Ends a transaction without a monitor whose deadline has passed.
    KyTferStatusMsg Copy();

    /// The record's request type, without the mutex.
    KyTferStatusMsg::TferRequestType RequestType() const { return m_requestType; }

    unsigned int XferFileSize();

    // Requests. `result` becomes a copy of the record that has been accepted.

    /// @return the transaction; none, with nothing changed, if one is in progress
    std::optional<Transaction> AcceptFetch(const std::string& name, unsigned int size,
                                           KyTferStatusMsg& result);

    /// Makes a listing current. Its row is written after the device has been asked.
    /// @return none if a transaction is in progress
    std::optional<Transaction> ReserveListing();
    /// @return false if it has been abandoned; `result` then tells that
    bool AcceptListing(const Transaction& listing, KyTferStatusMsg& result);
    void RefuseListing(const Transaction& listing);

    /// Keeps an answer that comes before the row of a reserved listing, for TakeEarlyAnswer.
    /// @return false if no listing is reserved
    bool KeepEarlyAnswer(const std::string& answer);
    /// @return the answer; the empty text ends the reservation
    std::string TakeEarlyAnswer();

    /// The file to push could not be staged.
    void FailStaging(const std::string& text, KyTferStatusMsg& result);
    /// The card has written this size to the device's point.
    void SetWrittenSize(unsigned int size);
    /// @param announced  the device has taken size and name; otherwise the row is a failed one
    Transaction AcceptPush(Transaction push, bool announced, KyTferStatusMsg& result);

    /// No monitor thread could be started for this request.
    void SetUnmonitored(unsigned long long request);

    /// Ends the current transaction as failed, or the push that the record shows. If a worker is moving its file,
    /// waits until it is complete; then there is nothing to end.
    struct Abandoned {
        bool any = false;               ///< something was in progress
        bool unanswered = false;        ///< the device has not answered it yet
        unsigned long long number = 0;  ///< for IsCurrent
    };
    Abandoned Abandon(const std::string& text, KyTferStatusMsg& record);

    /// False once another fetch or listing has become current, or this one was abandoned.
    bool IsCurrent(unsigned long long number);

    // The device.

    // "READY", and the name of a listing's file. Both return the worker's job, or none if another kind of
    // transaction is current. `repeated` tells whether the device has answered before, `early` whether the answer
    // is one that was kept.

    std::optional<Transaction> AcceptReady(bool& repeated);
    std::optional<Transaction> SetListingFile(const std::string& name, bool early, bool& repeated);
    /// "NONE": the device has no listing.
    void NoListing(bool early);
    void SetAnnouncedSize(unsigned int size, bool echo);

    // Workers.

    /// @return false if the transaction has been replaced
    bool BeginWorker(const Transaction& job);
    /// Decides what becomes of the file that was fetched. Sets the job's expected size, and its `worker` to
    /// CLAIMED if it is to write the last row.
    FetchOutcome Claim(Transaction& job, bool present, unsigned long long size);
    /// @return false if the device must not be told, because the transaction has been replaced
    bool FailFetch(const Transaction& job, const std::string& text);
    void CompleteFetch(const Transaction& job, const std::string& text);
    void EndPush(const Transaction& push, bool pushed);

    // Monitors.

    /// @param sizeLogged  the size that the monitor has logged last
    Poll PollFile(const MonitorRules& rules, unsigned long long request, long long end,
                  unsigned int sizeLogged);
    /// The monitor's last row.
    void EndTimedOut(const MonitorRules& rules, unsigned long long request, bool afterTimeOut);
    /// Waits until something has happened since the poll that gave `change`, or the time is over.
    void WaitForChange(unsigned long long changeCount, unsigned int milliseconds);
    /// Ends all waits, for Stop.
    void WakeMonitors();

    // For bodies that run on a thread of the user's: they work for what is current.

    Transaction Current();
    unsigned long long CurrentRequest();
    Transaction LastPush();
    /// Holds the record in progress, or fails it. @return false if another transaction has begun since `last`
    bool HoldForPush(unsigned long long last, bool inProgress);
    unsigned long long LastNumber();

    // A thread cannot go on because memory has run out.

    void FailWorkerOutOfMemory(const Transaction& job);
    void FailMonitorOutOfMemory(unsigned long long request);

private:
    struct Reported {
        unsigned long long number = 0;
        unsigned int size = 0;
    };

    bool IsOpen() const KY_REQUIRES(m_members.m_requestMutex);
    bool InProgress() const KY_REQUIRES(m_members.m_requestMutex);
    bool IsMonitored(unsigned long long request) const KY_REQUIRES(m_members.m_requestMutex);
    const Reported* FindReported(unsigned long long number) const KY_REQUIRES(m_members.m_requestMutex);
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
    bool MeasureFile(Poll& poll, unsigned int sizeLogged) const KY_REQUIRES(m_members.m_requestMutex);

    KyTferClientMembers& m_members;
    pthread_cond_t m_changed;
    std::atomic<KyTferStatusMsg::TferRequestType> m_requestType{KyTferStatusMsg::TFER_REQ_NONE};

    unsigned long long m_lastNumber KY_GUARDED_BY(m_members.m_requestMutex) = 0;
    Transaction m_current KY_GUARDED_BY(m_members.m_requestMutex);   // the fetch or listing
    Transaction m_previous KY_GUARDED_BY(m_members.m_requestMutex);  // a reserved listing
    Transaction m_lastPush KY_GUARDED_BY(m_members.m_requestMutex);
    // Whose names are in the record.
    unsigned long long m_shownNumber KY_GUARDED_BY(m_members.m_requestMutex) = 0;
    bool m_listingReserved KY_GUARDED_BY(m_members.m_requestMutex) = false;
    std::string m_earlyAnswer KY_GUARDED_BY(m_members.m_requestMutex);
    // The last transactions that monitors have reported complete: their workers may still have to move the file.
    std::array<Reported, 8> m_reported KY_GUARDED_BY(m_members.m_requestMutex);
    std::size_t m_nextReported KY_GUARDED_BY(m_members.m_requestMutex) = 0;
    unsigned long long m_changeCount KY_GUARDED_BY(m_members.m_requestMutex) = 0;
};

}  // namespace ky_engine

#endif
