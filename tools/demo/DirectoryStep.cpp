#include "demo/DirectoryStep.h"

#include <algorithm>
#include <fstream>
#include <limits>
#include <string>

#include "demo/Text.h"
#include "directory/KyBlankSeparatedListing.h"
#include "directory/KyTferDirectory.h"

namespace ky_demo {
namespace {

constexpr std::size_t s_mostRows = 8;

std::string Row(const std::string& name, const std::string& transferName, const std::string& type,
                const std::string& size, const std::string& date) {
    return "  " + Padded(name, 18) + " " + Padded(transferName, 18) + " " + Padded(type, 6) + " " +
           std::string(10 - std::min<std::size_t>(size.size(), 10), ' ') + size + "  " + date;
}

void ShowTable(Console& console, const std::vector<KyTferDirEntry>& entries) {
    console.Line(Row("Name", "Transfer name", "Type", "Bytes", "Date"));
    for (std::size_t i = 0; i < entries.size() && i < s_mostRows; ++i) {
        const KyTferDirEntry& entry = entries[i];
        console.Line(Row(Printable(entry.GetOrigFileName()), Printable(entry.GetXferFileName()),
                         Printable(entry.GetFileType()), std::to_string(entry.GetFileSizeInBytes()),
                         entry.GetDateTimeAsString()));
    }
    if (entries.size() > s_mostRows)
        console.Line("  ... and " + std::to_string(entries.size() - s_mostRows) + " more");
}

// The engine writes the request before its record says that there is one, so the answer has to wait.
KyTferStatusMsg RequestDirectory(CardAndDevice& both) {
    both.Device().PauseDelivery();
    KyTferStatusMsg record = both.Engine().GetDirectoryFromDevRequest();
    both.Device().ResumeDelivery();
    return record.GetStatus() == KyTferStatusMsg::TFER_STATUS_FAIL ? record : both.Finish();
}

}  // namespace

bool ListDirectory(Console& console, CardAndDevice& both, std::vector<KyTferDirEntry>& entries) {
    const KyTferStatusMsg record = RequestDirectory(both);
    console.Heading("Directory of the device");
    if (record.GetStatus() != KyTferStatusMsg::TFER_STATUS_COMPLETE) {
        console.Line("  FAILED, see the log: " + Printable(record.GetStatusMsg()));
        return false;
    }
    KyTferDirectory listing;
    std::ifstream file(record.GetXferFullFilePath());
    ky_directory::ReadBlankSeparatedListing(file, listing);
    entries = listing.GetEntryList(0, std::numeric_limits<unsigned int>::max());
    ShowTable(console, entries);
    console.Heading("A page of it as JSON, from entry 0 on and one entry long");
    console.Line(listing.GetEntryListAsJSONString("demo", 0, 1, "", record.GetStatus()));
    return true;
}

}  // namespace ky_demo
