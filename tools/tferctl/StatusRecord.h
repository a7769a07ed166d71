#ifndef TFERCTL_STATUSRECORD_H
#define TFERCTL_STATUSRECORD_H

#include <chrono>
#include <string>
#include <utility>

#include "messages/KyTferStatusMsg.h"

/// What the service's status record tells about a transfer.
namespace ky_tferctl {

/// Whether the file of the record is in the directory of pushed files.
bool IsInStagingDirectory(const KyTferStatusMsg& record);

bool IsCancelled(const KyTferStatusMsg& record);

/// Whether the service will still change the record: the transfer is in progress, or its file has arrived and has
/// not been moved to the download directory.
bool IsUnderWay(const KyTferStatusMsg& record);

/// Bytes that the transfer of the record has moved so far. 0 if the record has no count of that transfer: before
/// the file arrives, during a push and after a failure.
unsigned int BytesMoved(const KyTferStatusMsg& record);

/// Progress, 0 to 100; 0 if the record has no count of its transfer.
unsigned int Percent(const KyTferStatusMsg& record);

/// The record in one line, for a person.
std::string Summary(const KyTferStatusMsg& record);

/// The record in several lines, for a person.
std::string Description(const KyTferStatusMsg& record);

/// Tells the record of our transfer from the record of another one. The service has one record, without a
/// number, and may begin another transfer before we have seen the end of ours.
class RecordMatch {
public:
    RecordMatch() = default;
    RecordMatch(const RecordMatch&) = delete;
    RecordMatch& operator=(const RecordMatch&) = delete;
    virtual ~RecordMatch() = default;

    /// Whether the record is ours. To be called with each record, in order, once the service has accepted the
    /// request.
    virtual bool Matches(const KyTferStatusMsg& record) = 0;
};

class FetchMatch : public RecordMatch {
public:
    explicit FetchMatch(std::string transferName) : m_transferName(std::move(transferName)) {}
    bool Matches(const KyTferStatusMsg& record) override;

private:
    const std::string m_transferName;
};

/// The service chooses the transfer name of a push: the first record shows it.
class PushMatch : public RecordMatch {
public:
    explicit PushMatch(std::string fileName) : m_fileName(std::move(fileName)) {}
    bool Matches(const KyTferStatusMsg& record) override;

private:
    const std::string m_fileName;
    std::string m_transferName;  // empty before the first record
};

/// The device chooses the transfer name of its listing. A fetch that begins before we see that name matches
/// too: the caller checks that the file is a listing.
class ListingMatch : public RecordMatch {
public:
    bool Matches(const KyTferStatusMsg& record) override;

private:
    std::string m_transferName;  // empty before a record shows it
};

/// Time-out of a record that does not change.
class StallTimeOut {
public:
    using Duration = std::chrono::duration<double>;

    explicit StallTimeOut(Duration limit) : m_limit(limit) {}

    /// Whether all records of the time limit were equal to this one. The time counts from the first call.
    bool Expired(const KyTferStatusMsg& record);

    /// Sleeps until the next record should be requested: 10 to 200 ms, more the longer the record has not
    /// changed.
    void Pause() const;

private:
    using Clock = std::chrono::steady_clock;

    const Duration m_limit;
    std::string m_last;  // empty before the first record
    Clock::time_point m_since;
};

}  // namespace ky_tferctl

#endif
