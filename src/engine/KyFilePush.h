#ifndef ENGINE_KYFILEPUSH_H
#define ENGINE_KYFILEPUSH_H

#include <string>

#include "engine/KyDeviceAccess.h"
#include "engine/KyEngineThreads.h"
#include "engine/KyStatusRecord.h"

namespace ky_engine {

/// Pushes a file: the request stages and announces the file, and the worker sends it.
class KyFilePush {
public:
    /// @param members  holds the device identifier and the thread handle
    KyFilePush(KyDeviceAccess& device, KyStatusRecord& record, KyEngineThreads& threads,
               KyTferClientMembers& members)
        : m_device(device), m_record(record), m_threads(threads), m_members(members) {}

    /// Stages the file, writes its size and its transfer name to the device and starts the worker. Blocks for a second
    /// and the point writes.
    /// @param result  set to a copy of the record, in progress or failed
    void Request(const std::string& directory, const std::string& fileName, KyTferStatusMsg& result);

    /// Runs the worker's body for the last push on the calling thread.
    void PutFileToDevice();

private:
    void PutFileToDevice(const Transaction& job);
    void End(const Transaction& job, bool pushed);
    bool Stage(const std::string& sourcePath, const std::string& stagedPath, KyTferStatusMsg& result);
    bool MeasureStaged(const std::string& stagedPath, unsigned int& size, KyTferStatusMsg& result);
    Transaction Announce(const std::string& fileName, const std::string& stagedPath, unsigned int size,
                         KyTferStatusMsg& result);
    std::string NextTransferName();

    KyDeviceAccess& m_device;
    KyStatusRecord& m_record;
    KyEngineThreads& m_threads;
    KyTferClientMembers& m_members;
};

}  // namespace ky_engine

#endif
