#ifndef ENGINE_KYVALUECHANGES_H
#define ENGINE_KYVALUECHANGES_H

#include <string>

#include "engine/KyDirectoryFetch.h"
#include "engine/KyFileFetch.h"
#include "platform/KyValChgInfo.h"

namespace ky_engine {

/// Takes the changes of the device's points, one at a time, and hands each to the flow that it concerns.
class KyValueChanges {
public:
    /// @param members  for the card's module index and the last value of the request point
    KyValueChanges(KyDevicePoints& points, KyTransactionRecord& record, KyFileFetch& fetch,
                   KyDirectoryFetch& directory, KyTferClientMembers& members)
        : m_points(points), m_record(record), m_fetch(fetch), m_directory(directory), m_members(members) {}

    /// May throw std::bad_alloc.
    void Take(const KyValChgInfo& info);

private:
    void FileNameChanged(const KyValChgInfo& info) const;
    void FileSizeChanged(const KyValChgInfo& info);
    void DmpSupportedChanged(const KyValChgInfo& info) const;
    void FileRequestChanged(const KyValChgInfo& info);
    void ActOnAnswer(const std::string& answer, bool echo);

    KyDevicePoints& m_points;
    KyTransactionRecord& m_record;
    KyFileFetch& m_fetch;
    KyDirectoryFetch& m_directory;
    KyTferClientMembers& m_members;
    bool m_cleared = false;  // the last value of the request point was empty; for DataChange alone
};

}  // namespace ky_engine

#endif
