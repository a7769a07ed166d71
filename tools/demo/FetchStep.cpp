#include "demo/FetchStep.h"

#include <algorithm>
#include <cstdint>
#include <string>

#include "demo/Comparison.h"
#include "demo/ProgressBar.h"
#include "demo/Text.h"

namespace ky_demo {
namespace {

// Bytes per second. With many files the whole of them counts: they shall not take more than 20 seconds.
std::uint64_t LineRate(const Workspace& workspace) {
    std::uint64_t total = 0;
    for (const DeviceFile& file : workspace.Files())
        total += file.size;
    return std::max(workspace.Largest().size * 2 / 5, total / 20);
}

// Until the file has begun to arrive, the record's count is the one of the transaction before.
void ShowProgress(ProgressBar& bar, const KyTferStatusMsg& record) {
    const bool arriving = record.GetStatusMsg() == "File transfer inprogress";
    const bool arrived = record.GetStatus() == KyTferStatusMsg::TFER_STATUS_COMPLETE;
    if (arriving || arrived) bar.Show(record.GetPercentComplete(), record.GetBytesTransfered());
}

bool FetchFile(Console& console, CardAndDevice& both, const KyTferDirEntry& entry, const DeviceFile& file) {
    ProgressBar bar(console, Printable(file.name), file.size);
    KyTferStatusMsg record = both.Engine().GetFileFromDevRequest(
        entry.GetXferFileName(), static_cast<int>(entry.GetFileSizeInBytes()));
    if (record.GetStatus() == KyTferStatusMsg::TFER_STATUS_INPROGRESS)
        record = both.Finish([&bar](const KyTferStatusMsg& now) { ShowProgress(bar, now); });
    if (record.GetStatus() != KyTferStatusMsg::TFER_STATUS_COMPLETE) {
        bar.Fail(Printable(record.GetStatusMsg()));
        return false;
    }
    const Comparison comparison = Compare(Workspace::DevicePath(file.name), record.GetXferFullFilePath());
    bar.Finish(comparison.text);
    return comparison.equal;
}

}  // namespace

bool FetchFiles(Console& console, CardAndDevice& both, const std::vector<KyTferDirEntry>& entries,
                const Workspace& workspace) {
    const std::vector<DeviceFile>& files = workspace.Files();
    const std::uint64_t rate = LineRate(workspace);
    both.Device().SetLineRate(rate);
    console.Heading("Fetch over a line of " + (rate == 0 ? "any rate" : Bytes(rate) + "/s") +
                    ", and comparison byte for byte");
    if (entries.size() != files.size()) {
        console.Line("  FAILED: the listing has " + std::to_string(entries.size()) + " of " +
                     std::to_string(files.size()) + " files.");
        return false;
    }
    for (std::size_t i = 0; i < files.size(); ++i)
        if (!FetchFile(console, both, entries[i], files[i])) return false;
    return true;
}

}  // namespace ky_demo
