#include "fuzz/RecordCheck.h"

#include <algorithm>

#include "fuzz/Fuzz.h"
#include "fuzz/FuzzProxy.h"

using fuzz::Require;

namespace {

using Status = KyTferStatusMsg;

constexpr char kRetrieved[] = "Retrieved file(";

bool BeginsWith(const std::string& text, const std::string& start) {
    return text.compare(0, start.size(), start) == 0;
}

/// Whether the text belongs to the status. The text of a transaction in progress may be that of the one before.
bool FitsStatus(Status::TferStatus status, const std::string& text) {
    static const char* const kInProgress[] = {"In Progress - No progress to report",
                                              "File transfer inprogress",
                                              "Directory listing has been requested"};
    static const char* const kComplete[] = {kRetrieved, "File Transfer Complete",
                                            "Directory File Transfer Complete"};
    static const char* const kFailed[] = {"Failed to get file(",
                                          "Failed to move file(",
                                          "Failed to get size for file(",
                                          "Request failed",
                                          "File transfer timed out",
                                          "File transfer Failed - timeout",
                                          "File transfer Failed - timedout"};
    const auto begins = [&](const char* start) { return BeginsWith(text, start); };
    const bool complete = std::any_of(std::begin(kComplete), std::end(kComplete), begins);
    const bool failed = std::any_of(std::begin(kFailed), std::end(kFailed), begins);
    const bool running =
        text == "In Progress" || std::any_of(std::begin(kInProgress), std::end(kInProgress), begins);
    switch (status) {
        case Status::TFER_STATUS_NONE:
            return text.empty();
        case Status::TFER_STATUS_INPROGRESS:
            return text.empty() || running || complete || failed;
        case Status::TFER_STATUS_COMPLETE:
            return complete;
        case Status::TFER_STATUS_FAIL:
            return failed;
        default:
            return false;
    }
}

void CheckPath(const Status& record) {
    const std::string& path = record.GetFilePath();
    const std::string download = std::string(FuzzProxy::kLanding) + "tferFiles/";
    const bool retrieved = BeginsWith(record.GetStatusMsg(), kRetrieved);
    Require(path.empty() || path == FuzzProxy::kLanding || path == download || path == FuzzProxy::kStaging,
            "the file path is one of three");
    if (record.GetStatus() == Status::TFER_STATUS_COMPLETE && retrieved)
        Require(path == download, "a retrieved file is in the download directory");
    if (record.GetStatusMsg() == "In Progress") {
        Require(record.GetStatus() == Status::TFER_STATUS_INPROGRESS && path == FuzzProxy::kStaging,
                "a push in progress has its path");
    }
}

}  // namespace

void RecordCheck::Requesting() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_requesting = true;
}

void RecordCheck::Requested(const KyTferStatusMsg& result) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_requesting = false;
    if (result.GetStatus() != Status::TFER_STATUS_INPROGRESS) return;
    m_completed = m_pushed = m_sizeChanged = false;
}

void RecordCheck::PushRequested() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_pushed = true;
}

void RecordCheck::SizeChanged() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_sizeChanged = true;
}

KyTferStatusMsg RecordCheck::Check() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    KyTferStatusMsg record = m_engine.GetStatus("");
    const std::string shown = std::to_string(record.GetStatus()) + " " + record.GetStatusMsg() + " " +
                              record.GetFilePath() + record.GetXferFileName();
    Require(FitsStatus(record.GetStatus(), record.GetStatusMsg()), "the text fits the status: " + shown);
    Require(record.GetPercentComplete() <= 100, "a percentage is at most 100");
    Require(!record.GetJsonStatus().empty(), "a record has JSON");
    CheckPath(record);
    const bool retrieved =
        record.GetStatus() == Status::TFER_STATUS_COMPLETE && BeginsWith(record.GetStatusMsg(), kRetrieved);
    if (m_requesting) return record;
    // After a listing has ended, the device can announce another one.
    const bool listing = record.GetReqType() == Status::TFER_REQ_DIRECTORY;
    Require(retrieved || !m_completed || m_pushed || listing, "a completed fetch stays complete: " + shown);
    m_completed = retrieved;
    if (retrieved && !m_sizeChanged && record.GetReqType() == Status::TFER_REQ_GET_FILE) {
        Require(record.GetBytesTransfered() == record.GetBytesRequested(),
                "a completed fetch has all its bytes");
    }
    return record;
}
