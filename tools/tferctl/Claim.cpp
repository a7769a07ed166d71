#include "tferctl/Claim.h"

#include "messages/KyServiceContract.h"
#include "tferctl/Record.h"

namespace ky_tferctl {
namespace {

/// Whether the name is the one that was seen first, which this one is if there was none.
bool IsFirst(std::string& first, const std::string& name) {
    if (first.empty()) first = name;
    return first == name;
}

}  // namespace

bool FetchClaim::Holds(const KyTferStatusMsg& record) {
    return record.GetXferFileName() == m_name && !IsInStagingDirectory(record);
}

bool PushClaim::Holds(const KyTferStatusMsg& record) {
    return record.GetOrigFileName() == m_name && IsInStagingDirectory(record) &&
           IsFirst(m_transferName, record.GetXferFileName());
}

// The engine keeps the word as the record's other name. Another's request for the listing is as good as ours.
bool ListingClaim::Holds(const KyTferStatusMsg& record) {
    if (record.GetOrigFileName() != ky_service::kRequestDirectory || IsInStagingDirectory(record))
        return false;
    if (record.GetXferFileName() == ky_service::kRequestDirectory) return true;
    return IsFirst(m_transferName, record.GetXferFileName());
}

}  // namespace ky_tferctl
