#ifndef ENGINE_KYPOINTCHANGEHANDLER_H
#define ENGINE_KYPOINTCHANGEHANDLER_H

#include <string>

#include "engine/KyDirectoryFetch.h"
#include "engine/KyFileFetch.h"
#include "platform/KyValChgInfo.h"

namespace ky_engine {

/// Handles the changes of device points: passes answers to KyFileFetch or KyDirectoryFetch, and sizes to the record.
/// Changes of the DMP point set the flag file. One call at a time.
class KyPointChangeHandler {
public:
    /// @param members  holds the card's module index and the last value of the request point
    KyPointChangeHandler(KyDeviceAccess& device, KyStatusRecord& record, KyFileFetch& fetch,
                         KyDirectoryFetch& directory, KyTferClientMembers& members)
        : m_device(device), m_record(record), m_fetch(fetch), m_directory(directory), m_members(members) {}

    /// May throw std::bad_alloc.
    void Handle(const KyValChgInfo& info);

private:
    void FileNameChanged(const KyValChgInfo& info) const;
    void FileSizeChanged(const KyValChgInfo& info);
    void DmpSupportedChanged(const KyValChgInfo& info) const;
    void FileRequestChanged(const KyValChgInfo& info);
    void HandleAnswer(const std::string& answer, bool echo);

    KyDeviceAccess& m_device;
    KyStatusRecord& m_record;
    KyFileFetch& m_fetch;
    KyDirectoryFetch& m_directory;
    KyTferClientMembers& m_members;
    bool m_cleared = false;  // the last value of the request point was empty
};

}  // namespace ky_engine

#endif
