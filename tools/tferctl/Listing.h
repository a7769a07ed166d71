#ifndef TFERCTL_LISTING_H
#define TFERCTL_LISTING_H

#include <string>

#include "directory/KyTferDirectory.h"
#include "tferctl/Transactions.h"

namespace ky_tferctl {

/// The device's listing as it has just been fetched.
struct Listing {
    KyTferDirectory files;
    std::string downloadDirectory;  ///< where fetched files end up; ends with "/"
    KyTferStatusMsg::TferStatus status = KyTferStatusMsg::TFER_STATUS_NONE;
};

/// Asks the service for the device's listing and reads it.
///
/// @param notices  shows the progress, where it is a terminal
/// @param listing  empty; gets what has come. Throws a Failure.
void FetchListing(Transactions& transactions, ky_tools::Console& notices, Listing& listing);

}  // namespace ky_tferctl

#endif
