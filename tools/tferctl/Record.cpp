#include "tferctl/Record.h"

#include <algorithm>
#include <thread>

#include "common/Text.h"
#include "messages/KyServiceContract.h"

namespace ky_tferctl {
namespace {

using ky_tools::Printable;
using Status = KyTferStatusMsg::TferStatus;

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// A push has no count of its own at all.
bool CountsItself(const KyTferStatusMsg& record) {
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
            return IsUnderWay(record) ? "received, not in its place yet" : "complete";
        case KyTferStatusMsg::TFER_STATUS_FAIL:
            return "failed";
    }
    return "unknown";
}

// A device takes the number of bytes wanted back to 0 once it has sent them.
std::string Progress(const KyTferStatusMsg& record) {
    const unsigned int moved = BytesMoved(record);
    const bool inPart = moved < record.GetBytesRequested();
    return std::to_string(Percent(record)) + "%, " +
           (inPart ? ky_tools::BytesOf(moved, record.GetBytesRequested()) : ky_tools::Bytes(moved));
}

std::string Field(const char* name, const std::string& value) {
    return value.empty() ? std::string() : ky_tools::Padded(name, 16) + Printable(value) + "\n";
}

std::string Fingerprint(const KyTferStatusMsg& record) {
    return std::to_string(record.GetStatus()) + "|" + std::to_string(record.GetBytesTransfered()) + "|" +
           record.GetXferFileName() + "|" + record.GetFilePath() + "|" + record.GetStatusMsg();
}

}  // namespace

bool IsInDownloadDirectory(const KyTferStatusMsg& record) {
    return EndsWith(record.GetFilePath(), std::string("/") + ky_service::kDownloadDirectory + "/");
}

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
    if (!CountsItself(record)) return 0;
    return IsInStagingDirectory(record) ? record.GetBytesRequested() : record.GetBytesTransfered();
}

unsigned int Percent(const KyTferStatusMsg& record) {
    return CountsItself(record) ? record.GetPercentComplete() : 0;
}

std::string Summary(const KyTferStatusMsg& record) {
    if (record.GetStatus() == KyTferStatusMsg::TFER_STATUS_NONE) return StatusText(record);
    const std::string progress = CountsItself(record) ? ", " + Progress(record) : "";
    return Printable(record.GetXferFileName()) + " " + StatusText(record) + progress;
}

std::string Description(const KyTferStatusMsg& record) {
    const std::string progress = CountsItself(record) ? Progress(record) : "";
    // A fetch leaves the name that the transfer before it had.
    const std::string sentName = IsInStagingDirectory(record) ? record.GetOrigFileName() : "";
    std::string text = Field("Status", StatusText(record)) + Field("Message", record.GetStatusMsg()) +
                       Field("Transfer name", record.GetXferFileName()) + Field("File name", sentName) +
                       Field("Directory", record.GetFilePath()) + Field("Progress", progress);
    text.pop_back();
    return text;
}

bool Standstill::Lasts(const KyTferStatusMsg& record) {
    const std::string now = Fingerprint(record);
    if (now != m_last) {
        m_last = now;
        m_since = Clock::now();
    }
    return Clock::now() - m_since >= m_limit;
}

void Standstill::Pause() const {
    constexpr Duration least(0.01);
    constexpr Duration most(0.2);
    const Duration unchanged = Clock::now() - m_since;
    std::this_thread::sleep_for(std::min(most, least + unchanged / 10));
}

}  // namespace ky_tferctl
