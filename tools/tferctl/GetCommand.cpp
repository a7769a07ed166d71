#include <sys/stat.h>

#include <limits>
#include <optional>
#include <string>
#include <utility>

#include "common/ProgressBar.h"
#include "common/Text.h"
#include "tferctl/Commands.h"
#include "tferctl/ExitStatus.h"
#include "tferctl/Listing.h"
#include "tferctl/OutputFile.h"

namespace ky_tferctl {
namespace {

using ky_tools::Printable;

/// Tells whether a file has been put to a path since the object was made, whatever was there before. It is
/// what is left to see of a fetch whose record has given way to the next one's.
class Arrival {
public:
    explicit Arrival(std::string path) : m_path(std::move(path)), m_before(Look()) {}

    /// Whether it has, with `size` bytes.
    bool HasCome(std::uint64_t size) const {
        const struct stat now = Look();
        const bool changed = now.st_ino != m_before.st_ino || now.st_ctim.tv_sec != m_before.st_ctim.tv_sec ||
                             now.st_ctim.tv_nsec != m_before.st_ctim.tv_nsec;
        return changed && S_ISREG(now.st_mode) && static_cast<std::uint64_t>(now.st_size) == size;
    }

private:
    // All zero for no file.
    struct stat Look() const {
        struct stat found = {};
        if (stat(m_path.c_str(), &found) != 0) found = {};
        return found;
    }

    const std::string m_path;
    const struct stat m_before;
};

/// The entry with this transfer name; without such, the only one with this name on the device.
KyTferDirEntry Find(const KyTferDirectory& files, const std::string& name) {
    KyTferDirEntry found;
    if (files.GetDirEntry("", name, found)) return found;
    int count = 0;
    for (const KyTferDirEntry& entry : files.GetEntryList(0, std::numeric_limits<unsigned int>::max())) {
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

/// Fetches the file. @return its path in the download directory
std::string Fetch(const Context& context, Transactions& transactions, const KyTferDirEntry& entry,
                  const std::string& downloadDirectory, ky_tools::ProgressBar& bar) {
    const std::string& name = entry.GetXferFileName();
    std::string path = downloadDirectory + name;
    const Arrival arrival(path);
    transactions.Begin([&](Service& service, const std::string& id) {
        return service.Fetch(name, entry.GetFileSizeInBytes(), id);
    });
    FetchClaim claim(name);
    const auto record = transactions.Follow(
        claim, [&bar](const KyTferStatusMsg& now) { bar.Show(Percent(now), BytesMoved(now)); });
    context.out.Clear();
    if (!record && arrival.HasCome(entry.GetFileSizeInBytes())) return path;
    if (!record)
        throw Failure(ExitStatus::FAILED, "Another transfer began before it could be seen whether " +
                                              Printable(name) + " had come.");
    if (record->GetStatus() == KyTferStatusMsg::TFER_STATUS_FAIL)
        throw Failure(ExitStatus::FAILED,
                      Printable(name) + " could not be fetched: " + Printable(record->GetStatusMsg()));
    return record->GetXferFullFilePath();
}

}  // namespace

void RunGet(const Context& context) {
    const std::string& target = context.options.output;
    std::optional<OutputFile> output;
    if (!target.empty()) output.emplace(target);

    Transactions transactions(context.service, context.options, context.notices);
    Listing listing;
    FetchListing(transactions, context.notices, listing);
    const KyTferDirEntry entry = Find(listing.files, context.options.subject);
    const std::uint64_t size = entry.GetFileSizeInBytes();
    ky_tools::ProgressBar bar(context.out, Printable(entry.GetXferFileName()), size);
    const std::string path = Fetch(context, transactions, entry, listing.downloadDirectory, bar);
    if (output) output->Fill(path, size);
    bar.Finish("in " + Printable(output ? target : path));
}

}  // namespace ky_tferctl
