#ifndef TFERCTL_TRANSACTIONS_H
#define TFERCTL_TRANSACTIONS_H

#include <functional>
#include <optional>

#include "common/Console.h"
#include "tferctl/Claim.h"
#include "tferctl/Options.h"
#include "tferctl/Record.h"
#include "tferctl/Service.h"
#include "tferctl/Turn.h"

namespace ky_tferctl {

/// Makes this process's transfers through the service, one after the other, and never mistakes another's for
/// its own. The first to begin takes the process's turn among all tferctl; it is given up with the object.
class Transactions {
public:
    using Ask = std::function<Answer(Service& service)>;
    using Observer = std::function<void(const KyTferStatusMsg& record)>;

    /// @param notices  gets what happens while another's transfer is in progress
    Transactions(Service& service, const Options& options, ky_tools::Console& notices)
        : m_service(service), m_options(options), m_notices(notices) {}

    /// Waits until no other transfer is in progress, and asks for one. Throws a Failure if the service
    /// refuses, if another's is in progress and we are not to wait, and if that stands still for too long.
    void Begin(const Ask& ask);

    /// Follows the transfer to its end.
    ///
    /// @param claim     our claim to it
    /// @param observer  gets each record of it
    /// @return its last record; none if the service has begun another before the end was seen. Throws a
    /// Failure if it stands still for too long, and if a new service does not know of it.
    std::optional<KyTferStatusMsg> Follow(Claim& claim, const Observer& observer);

private:
    bool TryToBegin(const Ask& ask, const KyTferStatusMsg& record);
    void TellOfOther(const KyTferStatusMsg& record, bool first);

    Service& m_service;
    const Options& m_options;
    ky_tools::Console& m_notices;
    Turn m_turn;
};

}  // namespace ky_tferctl

#endif
