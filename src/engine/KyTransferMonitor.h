#ifndef ENGINE_KYTRANSFERMONITOR_H
#define ENGINE_KYTRANSFERMONITOR_H

#include <atomic>

#include "engine/KyStatusRecord.h"

namespace ky_engine {

/// The monitor: polls the size of an arriving file. Ends the transaction when the file is complete or the time limit
/// has passed. Each accepted fetch or listing has a monitor thread of its own.
///
/// Polls while the active flag (KyTferClientMembers::m_transactionActive) is set, with the pause of SetPause between
/// two polls. The pause ends at once when the worker ends, the transaction is abandoned or the engine stops. When
/// another thread clears the flag, the monitor waits a second and exits. Any thread may call SetPause.
class KyTransferMonitor {
public:
    /// @param active  the active flag; not owned
    KyTransferMonitor(KyStatusRecord& record, const std::atomic<bool>& active)
        : m_record(record), m_active(active) {}

    /// @param milliseconds  0, the default, for no pause
    void SetPause(unsigned int milliseconds) { m_pauseMs = milliseconds; }

    /// The body of a monitor thread. @param requestNumber  Transaction::requestNumber
    void Watch(Transaction::Kind kind, unsigned long long requestNumber);

    /// The same for the current transaction.
    void WatchCurrent(Transaction::Kind kind) { Watch(kind, m_record.CurrentRequest()); }

    /// Keeps the record in progress while the active flag is set, at most 180 seconds. Then fails the record.
    void HoldForPush();

private:
    void Run(const MonitorRules& rules, unsigned long long requestNumber);
    void Hold();

    KyStatusRecord& m_record;
    const std::atomic<bool>& m_active;
    std::atomic<unsigned int> m_pauseMs{0};
};

}  // namespace ky_engine

#endif
