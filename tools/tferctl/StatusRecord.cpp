#include "tferctl/StatusRecord.h"

#include <algorithm>
#include <thread>

#include "messages/KyServiceContract.h"
#include "tferctl/Text.h"

namespace ky_tferctl {
namespace {

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// Whether the byte counts are those of the record's own transfer. A push in progress has no byte counts.
bool HasByteCount(const KyTferStatusMsg& record) {
    if (record.GetStatus() == KyTferStatusMsg::TFER_STATUS_COMPLETE) return true;
    return record.GetStatus() == KyTferStatusMsg::TFER_STATUS_INPROGRESS &&
           record.GetStatusMsg() == ky_service::kTransferInProgress;
}

std::string StatusText(const KyTferStatusMsg& record) {
    switch (record.GetStatus()) {
        case KyTferStatusMsg::TFER_STATUS_NONE:
            return "no transfer yet";
        case KyTferStatusMsg::TFER_STATUS_REQUESTED:
            return "requested";
        case KyTferStatusMsg::TFER_STATUS_INPROGRESS:
            return "in progress";
        case KyTferStatusMsg::TFER_STATUS_COMPLETE:
            return IsUnderWay(record) ? "received, not yet moved to its directory" : "complete";
        case KyTferStatusMsg::TFER_STATUS_FAIL:
            return "failed";
    }
    return "unknown";
}

// A device may reset the number of requested bytes to 0 when it has sent them.
std::string Progress(const KyTferStatusMsg& record) {
    const unsigned int moved = BytesMoved(record);
    const bool inPart = moved < record.GetBytesRequested();
    return std::to_string(Percent(record)) + "%, " +
           (inPart ? BytesOf(moved, record.GetBytesRequested()) : Bytes(moved));
}

std::string Field(const char* name, const std::string& value) {
    return value.empty() ? std::string() : Padded(name, 16) + Printable(value) + "\n";
}

std::string Fingerprint(const KyTferStatusMsg& record) {
    return std::to_string(record.GetStatus()) + "|" + std::to_string(record.GetBytesTransfered()) + "|" +
           record.GetXferFileName() + "|" + record.GetFilePath() + "|" + record.GetStatusMsg();
}

bool IsInDownloadDirectory(const KyTferStatusMsg& record) {
    return EndsWith(record.GetFilePath(), std::string("/") + ky_service::kDownloadDirectory + "/");
}

/// Whether the name equals the first one, which is set to it if it is empty.
bool IsFirst(std::string& first, const std::string& name) {
    if (first.empty()) first = name;
    return first == name;
}

}  // namespace

bool IsInStagingDirectory(const KyTferStatusMsg& record) {
    return record.GetFilePath() == std::string(ky_service::kStagingDirectory) + "/";
}

bool IsCancelled(const KyTferStatusMsg& record) {
    return record.GetStatus() == KyTferStatusMsg::TFER_STATUS_FAIL &&
           record.GetStatusMsg().rfind(ky_service::kCancelled, 0) == 0;
}

bool IsUnderWay(const KyTferStatusMsg& record) {
    if (record.GetStatus() == KyTferStatusMsg::TFER_STATUS_INPROGRESS) return true;
    return record.GetStatus() == KyTferStatusMsg::TFER_STATUS_COMPLETE && !IsInDownloadDirectory(record) &&
           !IsInStagingDirectory(record);
}

unsigned int BytesMoved(const KyTferStatusMsg& record) {
    if (!HasByteCount(record)) return 0;
    return IsInStagingDirectory(record) ? record.GetBytesRequested() : record.GetBytesTransfered();
}

unsigned int Percent(const KyTferStatusMsg& record) {
    return HasByteCount(record) ? record.GetPercentComplete() : 0;
}

std::string Summary(const KyTferStatusMsg& record) {
    if (record.GetStatus() == KyTferStatusMsg::TFER_STATUS_NONE) return StatusText(record);
    const std::string progress = HasByteCount(record) ? ", " + Progress(record) : "";
    return Printable(record.GetXferFileName()) + " " + StatusText(record) + progress;
}

std::string Description(const KyTferStatusMsg& record) {
    const std::string progress = HasByteCount(record) ? Progress(record) : "";
    // The record of a fetch still has the file name of the transfer before it.
    const std::string fileName = IsInStagingDirectory(record) ? record.GetOrigFileName() : "";
    std::string text = Field("Status", StatusText(record)) + Field("Message", record.GetStatusMsg()) +
                       Field("Transfer name", record.GetXferFileName()) + Field("File name", fileName) +
                       Field("Directory", record.GetFilePath()) + Field("Progress", progress);
    text.pop_back();
    return text;
}

bool FetchMatch::Matches(const KyTferStatusMsg& record) {
    return record.GetXferFileName() == m_transferName && !IsInStagingDirectory(record);
}

bool PushMatch::Matches(const KyTferStatusMsg& record) {
    return record.GetOrigFileName() == m_fileName && IsInStagingDirectory(record) &&
           IsFirst(m_transferName, record.GetXferFileName());
}

// Another caller's listing is as good as ours.
bool ListingMatch::Matches(const KyTferStatusMsg& record) {
    if (record.GetOrigFileName() != ky_service::kRequestDirectory || IsInStagingDirectory(record))
        return false;
    if (record.GetXferFileName() == ky_service::kRequestDirectory) return true;
    return IsFirst(m_transferName, record.GetXferFileName());
}

bool StallTimeOut::Expired(const KyTferStatusMsg& record) {
    const std::string now = Fingerprint(record);
    if (now != m_last) {
        m_last = now;
        m_since = Clock::now();
    }
    return Clock::now() - m_since >= m_limit;
}

void StallTimeOut::Pause() const {
    constexpr Duration kMin(0.01);
    constexpr Duration kMax(0.2);
    const Duration unchanged = Clock::now() - m_since;
    std::this_thread::sleep_for(std::min(kMax, kMin + unchanged / 10));
}

}  // namespace ky_tferctl
