#include "tferctl/Listing.h"

#include <cctype>
#include <fstream>
#include <new>

#include "common/Text.h"
#include "directory/KyBlankSeparatedListing.h"
#include "tferctl/ExitStatus.h"

namespace ky_tferctl {
namespace {

constexpr int s_tries = 3;

std::optional<KyTferStatusMsg> FetchOnce(Transactions& transactions, ky_tools::Console& notices) {
    transactions.Begin([](Service& service, const std::string& id) { return service.FetchListing(id); });
    ListingClaim claim;
    auto record = transactions.Follow(claim, [&](const KyTferStatusMsg& now) {
        notices.Redraw("Fetching the device's listing: " + std::to_string(Percent(now)) + "%");
    });
    notices.Clear();
    return record;
}

/// Whether the file begins as a listing does: what the library's reader tells by entries cannot tell an empty
/// listing from a file that is none.
bool BeginsAsListing(std::istream& file) {
    unsigned int number = 0;
    char separator = 0;
    return static_cast<bool>(file >> number >> separator >> number);
}

/// @return false if the file is no listing: another's fetch has followed ours unseen
bool ReadListing(const std::string& path, KyTferDirectory& files) {
    std::ifstream file(path);
    if (!file) throw Failure(ExitStatus::FAILED, "Cannot read the listing " + ky_tools::Printable(path));
    if (!BeginsAsListing(file)) return false;
    if (!ky_directory::ReadBlankSeparatedListing(path, files)) throw std::bad_alloc();
    return true;
}

}  // namespace

void FetchListing(Transactions& transactions, ky_tools::Console& notices, Listing& listing) {
    for (int i = 0; i < s_tries; ++i) {
        const auto record = FetchOnce(transactions, notices);
        if (!record) continue;
        if (record->GetStatus() == KyTferStatusMsg::TFER_STATUS_FAIL)
            throw Failure(ExitStatus::FAILED, "The device's listing could not be fetched: " +
                                                  ky_tools::Printable(record->GetStatusMsg()));
        listing.downloadDirectory = record->GetFilePath();
        listing.status = record->GetStatus();
        if (ReadListing(record->GetXferFullFilePath(), listing.files)) return;
    }
    throw Failure(ExitStatus::FAILED,
                  "Other transfers have come between this one and its listing, three times.");
}

}  // namespace ky_tferctl
