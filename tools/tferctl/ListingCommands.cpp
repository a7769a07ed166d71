// The commands that fetch the device's listing: ls and get.
#include <sys/stat.h>

#include <fstream>
#include <limits>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "directory/KyBlankSeparatedListing.h"
#include "directory/KyTferDirectory.h"
#include "tferctl/Commands.h"
#include "tferctl/Failure.h"
#include "tferctl/FileCopy.h"
#include "tferctl/StatusRecord.h"
#include "tferctl/Text.h"
#include "tferctl/Transactions.h"

namespace ky_tferctl {
namespace {

constexpr char kJsonContext[] = "tferctl";
constexpr int kListingTries = 3;
constexpr unsigned int kAll = std::numeric_limits<unsigned int>::max();

struct Listing {
    KyTferDirectory files;
    std::string downloadDirectory;  // ends with "/"
    KyTferStatusMsg::TferStatus status = KyTferStatusMsg::TFER_STATUS_NONE;
};

std::optional<KyTferStatusMsg> TryToFetchListing(Transactions& transactions, Console& notices) {
    transactions.Begin([](Service& service, const std::string& transactionId) {
        return service.FetchListing(transactionId);
    });
    ListingMatch match;
    auto record = transactions.Follow(match, [&](const KyTferStatusMsg& now) {
        notices.Redraw("Fetching the device's listing: " + std::to_string(Percent(now)) + "%");
    });
    notices.Clear();
    return record;
}

/// Whether the file begins like a listing: the listing's reader returns no entries for any other file too.
bool BeginsAsListing(std::istream& file) {
    unsigned int number = 0;
    char separator = 0;
    return static_cast<bool>(file >> number >> separator >> number);
}

/// @return false if the file is no listing: then it was fetched by another caller
bool ReadListing(const std::string& path, KyTferDirectory& files) {
    std::ifstream file(path);
    if (!file) throw Failure(ExitStatus::FAILED, "Cannot read the listing " + Printable(path));
    if (!BeginsAsListing(file)) return false;
    if (!ky_directory::ReadBlankSeparatedListing(path, files)) throw std::bad_alloc();
    return true;
}

/// Fetches and reads the device's listing. @param listing  empty
void FetchListing(Transactions& transactions, Console& notices, Listing& listing) {
    for (int i = 0; i < kListingTries; ++i) {
        const auto record = TryToFetchListing(transactions, notices);
        if (!record) continue;
        if (record->GetStatus() == KyTferStatusMsg::TFER_STATUS_FAIL)
            throw Failure(ExitStatus::FAILED,
                          "The device's listing could not be fetched: " + Printable(record->GetStatusMsg()));
        listing.downloadDirectory = record->GetFilePath();
        listing.status = record->GetStatus();
        if (ReadListing(record->GetXferFullFilePath(), listing.files)) return;
    }
    throw Failure(ExitStatus::FAILED, "Other transfers replaced the fetched listing three times.");
}

std::string PageTable(const std::vector<KyTferDirEntry>& page) {
    Table table({"NAME", "TRANSFER NAME", "TYPE", "BYTES", "DATE"},
                {Table::Align::LEFT, Table::Align::LEFT, Table::Align::LEFT, Table::Align::RIGHT,
                 Table::Align::LEFT});
    for (const KyTferDirEntry& entry : page)
        table.Add({entry.GetOrigFileName(), entry.GetXferFileName(), entry.GetFileType(),
                   std::to_string(entry.GetFileSizeInBytes()), entry.GetDateTimeAsString()});
    return table.Text();
}

std::string PageRange(std::size_t shown, std::size_t all, unsigned int skip) {
    const std::string files = all == 1 ? " file" : " files";
    if (shown == all) return std::to_string(all) + files;
    if (shown == 0) return "None of " + std::to_string(all) + files;
    return "Files " + std::to_string(skip + 1ULL) + " to " + std::to_string(skip + shown) + " of " +
           std::to_string(all);
}

/// The entry with this transfer name; otherwise the only entry with this file name.
KyTferDirEntry FindEntry(const KyTferDirectory& files, const std::string& name) {
    KyTferDirEntry found;
    if (files.GetDirEntry("", name, found)) return found;
    int count = 0;
    for (const KyTferDirEntry& entry : files.GetEntryList(0, kAll)) {
        if (entry.GetOrigFileName() != name) continue;
        found = entry;
        ++count;
    }
    if (count == 0) throw Failure(ExitStatus::FAILED, "The device has no file " + Printable(name));
    if (count > 1)
        throw Failure(ExitStatus::FAILED, "The device has " + std::to_string(count) + " files " +
                                              Printable(name) +
                                              "; use the transfer name of the one you want.");
    return found;
}

/// Tells whether a file has been moved to a path since this object was constructed. That shows the end of a
/// fetch whose record another transfer has replaced.
class ArrivalCheck {
public:
    explicit ArrivalCheck(std::string path) : m_path(std::move(path)), m_before(Stat()) {}

    /// @param size  expected size of the file, in bytes
    bool HasArrived(std::uint64_t size) const {
        const struct stat now = Stat();
        const bool changed = now.st_ino != m_before.st_ino || now.st_ctim.tv_sec != m_before.st_ctim.tv_sec ||
                             now.st_ctim.tv_nsec != m_before.st_ctim.tv_nsec;
        return changed && S_ISREG(now.st_mode) && static_cast<std::uint64_t>(now.st_size) == size;
    }

private:
    // All fields are 0 if there is no file.
    struct stat Stat() const {
        struct stat found = {};
        if (stat(m_path.c_str(), &found) != 0) found = {};
        return found;
    }

    const std::string m_path;
    const struct stat m_before;
};

/// @return path of the fetched file
std::string Fetch(const Context& context, Transactions& transactions, const KyTferDirEntry& entry,
                  const std::string& downloadDirectory, ProgressBar& bar) {
    const std::string& transferName = entry.GetXferFileName();
    std::string path = downloadDirectory + transferName;
    const ArrivalCheck arrival(path);
    transactions.Begin([&](Service& service, const std::string& transactionId) {
        return service.Fetch(transferName, entry.GetFileSizeInBytes(), transactionId);
    });
    FetchMatch match(transferName);
    const auto record = transactions.Follow(
        match, [&bar](const KyTferStatusMsg& now) { bar.Show(Percent(now), BytesMoved(now)); });
    context.out.Clear();
    if (!record && arrival.HasArrived(entry.GetFileSizeInBytes())) return path;
    if (!record)
        throw Failure(ExitStatus::FAILED, "Another transfer began before it could be seen whether " +
                                              Printable(transferName) + " had arrived.");
    if (record->GetStatus() == KyTferStatusMsg::TFER_STATUS_FAIL)
        throw Failure(ExitStatus::FAILED, Printable(transferName) +
                                              " could not be fetched: " + Printable(record->GetStatusMsg()));
    return record->GetXferFullFilePath();
}

}  // namespace

void RunList(const Context& context) {
    const Options& options = context.options;
    Transactions transactions(context.service, options, context.notices);
    Listing listing;
    FetchListing(transactions, context.notices, listing);
    if (options.json) {
        context.out.Line(listing.files.GetEntryListAsJSONString(kJsonContext, options.skip, options.take, "",
                                                                listing.status));
        return;
    }
    const auto page = listing.files.GetEntryList(options.skip, options.take);
    const std::size_t all = listing.files.GetEntryList(0, kAll).size();
    context.out.Line(PageTable(page));
    context.out.Line(PageRange(page.size(), all, options.skip));
}

void RunGet(const Context& context) {
    const std::string& outputPath = context.options.outputPath;
    std::optional<OutputFile> output;
    if (!outputPath.empty()) output.emplace(outputPath);

    Transactions transactions(context.service, context.options, context.notices);
    Listing listing;
    FetchListing(transactions, context.notices, listing);
    const KyTferDirEntry entry = FindEntry(listing.files, context.options.deviceFile);
    const std::uint64_t size = entry.GetFileSizeInBytes();
    ProgressBar bar(context.out, Printable(entry.GetXferFileName()), size);
    const std::string path = Fetch(context, transactions, entry, listing.downloadDirectory, bar);
    if (output) output->Fill(path, size);
    bar.Finish("in " + Printable(output ? outputPath : path));
}

}  // namespace ky_tferctl
