#ifndef TFERCTL_RECORD_H
#define TFERCTL_RECORD_H

#include <chrono>
#include <string>

#include "messages/KyTferStatusMsg.h"

/// What the service's status record says of a transfer.
namespace ky_tferctl {

/// Whether the record's file path is the directory in which fetched files end up.
bool IsInDownloadDirectory(const KyTferStatusMsg& record);
bool IsInStagingDirectory(const KyTferStatusMsg& record);

/// Whether the transfer has failed because it was cancelled.
bool IsCancelled(const KyTferStatusMsg& record);

/// Whether the record will change by itself: its transfer is in progress, or complete but for the file, which
/// has still to be moved. The service's last word on a fetch comes with the move.
bool IsUnderWay(const KyTferStatusMsg& record);

/// Bytes that this transfer has moved so far. A record keeps the count of the transfer before, until the
/// first bytes have come.
unsigned int BytesMoved(const KyTferStatusMsg& record);

/// 0 to 100, as BytesMoved().
unsigned int Percent(const KyTferStatusMsg& record);

/// The record in one line, and in several, for a person.
std::string Summary(const KyTferStatusMsg& record);
std::string Description(const KyTferStatusMsg& record);

/// Notices when a record has stayed as it is for too long.
class Standstill {
public:
    using Duration = std::chrono::duration<double>;

    explicit Standstill(Duration limit) : m_limit(limit) {}

    /// Whether `record` equals all those that were given within the limit. The time counts from the first
    /// call.
    bool Lasts(const KyTferStatusMsg& record);

    /// Sleeps until it is time to ask for the next record: the longer nothing has changed, the later, up to a
    /// fifth of a second.
    void Pause() const;

private:
    using Clock = std::chrono::steady_clock;

    const Duration m_limit;
    std::string m_last;  // empty before the first record
    Clock::time_point m_since;
};

}  // namespace ky_tferctl

#endif
