#ifndef ENGINE_KYFILEFETCH_H
#define ENGINE_KYFILEFETCH_H

#include <string>

#include "engine/KyDevicePoints.h"
#include "engine/KyEngineThreads.h"
#include "engine/KyTransactionRecord.h"
#include "engine/KyTransferMonitor.h"

namespace ky_engine {

/// Fetching a file: the request, and the worker that brings the file. The worker of a listing is the same.
class KyFileFetch {
public:
    /// @param members  for the handles of its threads
    KyFileFetch(KyDevicePoints& points, KyTransactionRecord& record, KyEngineThreads& threads,
                KyTransferMonitor& monitor, KyTferClientMembers& members)
        : m_points(points), m_record(record), m_threads(threads), m_monitor(monitor), m_members(members) {}

    /// @return false if a transaction is in progress
    bool Request(const std::string& fileName, unsigned int fileSize, KyTferStatusMsg& result);

    /// The device has the file ready.
    void Ready();

    /// @param repeated  the device has answered this transaction before
    void StartWorker(const Transaction& job, bool repeated, pthread_t& handle);

    /// Does the worker's job for the current transaction, on the calling thread.
    void GetFileFromDevice();

private:
    void GetFileFromDevice(const Transaction& job);
    void Fetch(Transaction job);
    bool End(Transaction& job);
    bool FetchedNothing(const Transaction& job);
    bool MoveClaimed(const Transaction& job);
    void FetchedWhole(const Transaction& job);
    bool FetchedOtherSize(const Transaction& job, unsigned long long size);

    KyDevicePoints& m_points;
    KyTransactionRecord& m_record;
    KyEngineThreads& m_threads;
    KyTransferMonitor& m_monitor;
    KyTferClientMembers& m_members;
};

}  // namespace ky_engine

#endif
