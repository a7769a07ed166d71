#include "engine/KyDirectoryFetch.h"

#include <algorithm>
#include <new>

#include "directory/KyBlankSeparatedListing.h"
#include "engine/KyTferClientConstants.h"
#include "platform/KyDlog.h"

namespace ky_engine {

namespace {

constexpr char kFunction[] = "GetDirectoryFromDevRequest";
constexpr std::size_t kMaxListings = 16;

}  // namespace

// Asks the device before the record shows the request. A failed write then changes only the request type.
std::optional<int> KyDirectoryFetch::Request(KyTferStatusMsg& result) {
    const auto listing = m_record.ReserveListing();
    if (!listing) return std::nullopt;
    const int status = m_device.Send(kRequestDirectory, PNT_CLIENT_FILE_REQ);
    if (status != 0) {
        m_record.RefuseListing(*listing);
        return status;
    }
    try {
        if (m_record.AcceptListing(*listing, result)) Begin(*listing);
    } catch (...) {
        m_record.FailWorkerOutOfMemory(*listing);
        throw;
    }
    return 0;
}

void KyDirectoryFetch::Begin(const Transaction& listing) {
    __dlog_printfex(KY_DLOG_NOTICE, kSource, kFunction, "%s", kListingRequested);
    const int error =
        m_threads.Start(KyEngineThreads::MONITOR, "t-getDirMonitor", m_members.m_getDirMonitorThread, listing,
                        [this](const Transaction& own) { m_monitor.Watch(own.kind, own.requestNumber); });
    if (error != 0) {
        m_record.SetUnmonitored(listing.requestNumber);
        __dlog_printfex(KY_DLOG_ERROR, kSource, kFunction,
                        "Error creating directory monitor thread.  error=%d", error);
    }
    for (std::string early = m_record.TakeEarlyAnswer(); !early.empty(); early = m_record.TakeEarlyAnswer())
        HandleAnswer(early, true);
}

void KyDirectoryFetch::HandleAnswer(const std::string& answer, bool early) {
    if (answer == kRequestDirectory) return;
    if (answer == kRequestNone) {
        m_record.NoListing(early);
        return;
    }
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange", "Fetch the directory file(%s)", answer.c_str());
    bool repeated = false;
    const auto job = m_record.SetListingFile(answer, early, repeated);
    if (!job) return;
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange", "Kick off thread to fetch the directory file(%s)",
                    answer.c_str());
    m_fetch.StartWorker(*job, repeated, m_members.m_dirFileFetchThread);
}

// Does not replace a listing that is already kept. Drops the least recently requested one beyond the limit.
void KyDirectoryFetch::CreateDirectoryFromFile(const std::string& path) {
    auto listing = std::make_unique<KyTferDirectory>();
    if (!ky_directory::ReadBlankSeparatedListing(path, *listing)) throw std::bad_alloc();

    auto& listings = m_members.m_directoryMap;
    const auto place = listings.try_emplace(path, KyTferClientMembers::Listing{std::move(listing), 0}).first;
    place->second.lastRead = ++m_readings;
    if (listings.size() <= kMaxListings) return;
    const auto older = [](const auto& one, const auto& other) {
        return one.second.lastRead < other.second.lastRead;
    };
    const auto oldest = std::min_element(listings.begin(), listings.end(), older);
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "CreateDirectoryFromFile", "Dropped listing(%s)",
                    oldest->first.c_str());
    listings.erase(oldest);
}

}  // namespace ky_engine
