#ifndef TFERCTL_TRANSACTIONS_H
#define TFERCTL_TRANSACTIONS_H

#include <functional>
#include <optional>
#include <string>

#include "platform/KyFd.h"
#include "tferctl/Console.h"
#include "tferctl/Options.h"
#include "tferctl/Service.h"
#include "tferctl/Signals.h"
#include "tferctl/StatusRecord.h"

namespace ky_tferctl {

/// Lets one tferctl at a time make transfers. The service has one record for all transfers, so a process
/// could miss the end of its transfer when another process begins the next one.
///
/// Uses flock() on the staging directory; the kernel releases the lock when the process ends. If the directory
/// cannot be opened, TryAcquire() succeeds without a lock.
class TransferLock {
public:
    /// Does not wait.
    /// @return false if another process has the lock
    bool TryAcquire();

private:
    KyFd m_directory;
    bool m_acquired = false;
};

/// Makes this process's transfers through the service, one after the other, and does not mistake another
/// caller's transfer for one of them. Holds the transfer lock from the first transfer on.
///
/// After SIGINT, SIGTERM or SIGHUP during a transfer, cancels the transfer before the process ends. Other signals end
/// the process at once.
class Transactions {
public:
    /// Requests a transfer with this transaction identifier.
    using Request = std::function<Answer(Service& service, const std::string& transactionId)>;
    using Observer = std::function<void(const KyTferStatusMsg& record)>;

    /// @param notices  shows the transfer for which this process waits
    Transactions(Service& service, const Options& options, Console& notices);

    /// Waits until no other transfer is in progress, and requests one. Throws a Failure if the service
    /// refuses, if another transfer is in progress and the options say not to wait, or if that transfer
    /// stalls.
    void Begin(const Request& request);

    /// Follows the transfer to its end.
    ///
    /// @param match     tells the transfer's records
    /// @param observer  called with each record of the transfer
    /// @return its last record; nothing if the service began another transfer before that record was seen.
    ///         Throws a Failure if the transfer stalls, if another caller cancels it, or if the service
    ///         restarts. Throws Interrupted after a signal
    std::optional<KyTferStatusMsg> Follow(RecordMatch& match, const Observer& observer);

private:
    bool TryToBegin(const Request& request, const KyTferStatusMsg& record);
    std::optional<KyTferStatusMsg> FollowToEnd(RecordMatch& match, const Observer& observer);
    void CancelIfInterrupted();
    std::string Cancel();
    void ShowOther(const KyTferStatusMsg& record, bool first);

    Service& m_service;
    const Options& m_options;
    Console& m_notices;
    const std::string m_id;  // transaction identifier of all our requests; unique to this process
    TransferLock m_lock;
    std::optional<DeferredSignal> m_signal;  // from our request to the end of its transfer
};

}  // namespace ky_tferctl

#endif
