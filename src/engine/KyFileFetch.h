#ifndef ENGINE_KYFILEFETCH_H
#define ENGINE_KYFILEFETCH_H

#include <string>

#include "engine/KyDeviceAccess.h"
#include "engine/KyEngineThreads.h"
#include "engine/KyStatusRecord.h"
#include "engine/KyTransferMonitor.h"

namespace ky_engine {

/// Fetches a file: sends the request, and runs the worker. Listings use the same worker.
class KyFileFetch {
public:
    /// @param members  stores thread handles
    KyFileFetch(KyDeviceAccess& device, KyStatusRecord& record, KyEngineThreads& threads,
                KyTransferMonitor& monitor, KyTferClientMembers& members)
        : m_device(device), m_record(record), m_threads(threads), m_monitor(monitor), m_members(members) {}

    /// Starts the monitor and sends the request. Blocks for the point writes, whose failure is not reported.
    /// @param result  set to a copy of the record if the request is accepted
    /// @return false if a transaction is in progress
    bool Request(const std::string& fileName, unsigned int fileSize, KyTferStatusMsg& result);

    /// Handles "READY": starts a worker.
    void Ready();

    /// @param repeated  the device has answered this transaction before
    /// @param handle    receives the thread's handle
    void StartWorker(const Transaction& job, bool repeated, pthread_t& handle);

    /// Runs the worker's body for the current transaction on the calling thread.
    void GetFileFromDevice();

private:
    void GetFileFromDevice(const Transaction& job);
    void Fetch(Transaction job);
    bool FinishFetch(Transaction& job);
    bool HandleMissingFile(const Transaction& job);
    bool MoveFile(const Transaction& job);
    void HandleCompleteFile(const Transaction& job);
    bool HandleWrongSize(const Transaction& job, unsigned long long size);

    KyDeviceAccess& m_device;
    KyStatusRecord& m_record;
    KyEngineThreads& m_threads;
    KyTransferMonitor& m_monitor;
    KyTferClientMembers& m_members;
};

}  // namespace ky_engine

#endif
