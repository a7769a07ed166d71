#ifndef ENGINE_KYDIRECTORYFETCH_H
#define ENGINE_KYDIRECTORYFETCH_H

#include <optional>
#include <string>

#include "engine/KyFileFetch.h"

namespace ky_engine {

/// Fetches the device's listing: sends the request, handles the answers, and reads the listing file. KyFileFetch
/// provides the worker.
class KyDirectoryFetch {
public:
    /// @param members  stores thread handles and listings
    KyDirectoryFetch(KyDeviceAccess& device, KyStatusRecord& record, KyEngineThreads& threads,
                     KyTransferMonitor& monitor, KyFileFetch& fetch, KyTferClientMembers& members)
        : m_device(device),
          m_record(record),
          m_threads(threads),
          m_monitor(monitor),
          m_fetch(fetch),
          m_members(members) {}

    /// Sends a listing request, starts the monitor and handles an early answer. Blocks for the point writes.
    /// @param result  set to a copy of the record if the request is accepted
    /// @return 0, or the status of the failed point write; none if a transaction is in progress
    std::optional<int> Request(KyTferStatusMsg& result);

    /// Handles the device's answer to a listing request.
    /// @param early  the answer came before the record showed the request
    void HandleAnswer(const std::string& answer, bool early);

    /// Implements KyTferClient::CreateDirectoryFromFile. Throws std::bad_alloc.
    void CreateDirectoryFromFile(const std::string& path);

private:
    void Begin(const Transaction& listing);

    KyDeviceAccess& m_device;
    KyStatusRecord& m_record;
    KyEngineThreads& m_threads;
    KyTransferMonitor& m_monitor;
    KyFileFetch& m_fetch;
    KyTferClientMembers& m_members;
    unsigned long long m_readings = 0;  // of listing files so far
};

}  // namespace ky_engine

#endif
