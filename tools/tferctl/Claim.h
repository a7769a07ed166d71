#ifndef TFERCTL_CLAIM_H
#define TFERCTL_CLAIM_H

#include <string>

#include "messages/KyTferStatusMsg.h"

namespace ky_tferctl {

/// Tells the record of our own transfer from that of another, which the service may have begun before we
/// could see how ours ended: there is only one record, and no number in it. Is shown every record from the
/// acceptance of our request on, in order.
class Claim {
public:
    Claim() = default;
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;
    virtual ~Claim() = default;

    /// Whether the record is ours.
    virtual bool Holds(const KyTferStatusMsg& record) = 0;
};

/// To a fetch of the file with this transfer name.
class FetchClaim : public Claim {
public:
    explicit FetchClaim(std::string name) : m_name(std::move(name)) {}
    bool Holds(const KyTferStatusMsg& record) override;

private:
    const std::string m_name;
};

/// To a push of the file with this name. The service makes up the transfer name.
class PushClaim : public Claim {
public:
    explicit PushClaim(std::string name) : m_name(std::move(name)) {}
    bool Holds(const KyTferStatusMsg& record) override;

private:
    const std::string m_name;
    std::string m_transferName;  // empty until seen
};

/// To a fetch of the listing. It has a word for a name until the device has named its listing. A fetch that
/// begins between the two looks the same; whoever uses what came checks that it is a listing.
class ListingClaim : public Claim {
public:
    bool Holds(const KyTferStatusMsg& record) override;

private:
    std::string m_transferName;  // empty until the device has given it
};

}  // namespace ky_tferctl

#endif
