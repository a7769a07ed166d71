#ifndef ENGINE_KYDIRECTORYFETCH_H
#define ENGINE_KYDIRECTORYFETCH_H

#include <optional>
#include <string>

#include "engine/KyFileFetch.h"

namespace ky_engine {

/// Fetching the listing: the request, the device's answers, and reading the file into memory. The worker is that
/// of KyFileFetch.
class KyDirectoryFetch {
public:
    /// @param members  for the handles of its threads and for the listings
    KyDirectoryFetch(KyDeviceAccess& device, KyStatusRecord& record, KyEngineThreads& threads,
                     KyTransferMonitor& monitor, KyFileFetch& fetch, KyTferClientMembers& members)
        : m_device(device),
          m_record(record),
          m_threads(threads),
          m_monitor(monitor),
          m_fetch(fetch),
          m_members(members) {}

    /// @return 0, or the status of the point write that failed; none if a transaction is in progress
    std::optional<int> Request(KyTferStatusMsg& result);

    /// The device has answered a listing request.
    /// @param early  the answer came before the record told of the request
    void Answered(const std::string& answer, bool early);

    /// Reads a listing file, and keeps the listing. At most 16 are kept.
    void CreateDirectoryFromFile(const std::string& path);

private:
    void Begin(const Transaction& listing);

    KyDeviceAccess& m_device;
    KyStatusRecord& m_record;
    KyEngineThreads& m_threads;
    KyTransferMonitor& m_monitor;
    KyFileFetch& m_fetch;
    KyTferClientMembers& m_members;
    unsigned long long m_readings = 0;  // of listing files
};

}  // namespace ky_engine

#endif
