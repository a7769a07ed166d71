#ifndef TFERCTL_TRANSACTIONS_H
#define TFERCTL_TRANSACTIONS_H

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include "common/Console.h"
#include "tferctl/Claim.h"
#include "tferctl/Options.h"
#include "tferctl/Record.h"
#include "tferctl/Service.h"
#include "tferctl/Signals.h"
#include "tferctl/Turn.h"

namespace ky_tferctl {

/// A signal has interrupted a transfer of this process. The text is a sentence that says what has become of
/// the transfer.
class Interrupted : public std::runtime_error {
public:
    Interrupted(int signal, const std::string& sentence) : std::runtime_error(sentence), m_signal(signal) {}

    /// The process is to die of it.
    int Signal() const { return m_signal; }

private:
    int m_signal;
};

/// Makes this process's transfers through the service, one after the other, and never mistakes another's for
/// its own. The first to begin takes the process's turn among all tferctl; it is given up with the object.
///
/// A signal that would end the process while a transfer of its own is under way first cancels the transfer.
class Transactions {
public:
    /// Asks the service for a transfer with this transaction identifier.
    using Ask = std::function<Answer(Service& service, const std::string& id)>;
    using Observer = std::function<void(const KyTferStatusMsg& record)>;

    /// @param notices  gets what happens while another's transfer is in progress
    Transactions(Service& service, const Options& options, ky_tools::Console& notices);

    /// Waits until no other transfer is in progress, and asks for one. Throws a Failure if the service
    /// refuses, if another's is in progress and we are not to wait, and if that stands still for too long.
    void Begin(const Ask& ask);

    /// Follows the transfer to its end.
    ///
    /// @param claim     our claim to it
    /// @param observer  gets each record of it
    /// @return its last record; none if the service has begun another before the end was seen. Throws a
    /// Failure if it stands still for too long, if somebody else has cancelled it, and if a new service does
    /// not know of it. Throws Interrupted after a signal.
    std::optional<KyTferStatusMsg> Follow(Claim& claim, const Observer& observer);

private:
    bool TryToBegin(const Ask& ask, const KyTferStatusMsg& record);
    std::optional<KyTferStatusMsg> FollowToEnd(Claim& claim, const Observer& observer);
    void AbandonIfInterrupted();
    std::string Abandon();
    void TellOfOther(const KyTferStatusMsg& record, bool first);

    Service& m_service;
    const Options& m_options;
    ky_tools::Console& m_notices;
    const std::string m_id;  // of all our requests; no other process has it
    Turn m_turn;
    std::optional<DeferredInterruption> m_interruption;  // from a request of ours to the end of its transfer
};

}  // namespace ky_tferctl

#endif
