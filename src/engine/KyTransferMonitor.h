#ifndef ENGINE_KYTRANSFERMONITOR_H
#define ENGINE_KYTRANSFERMONITOR_H

#include <atomic>

#include "engine/KyStatusRecord.h"

namespace ky_engine {

/// Watches a file arrive, and ends its transaction when it has come or the time is up. A monitor runs on a thread
/// of its own, from the request on.
///
/// Polls follow each other without a pause while the active flag is set, unless a pause is set. A pause ends at
/// once when the worker ends, the transaction is abandoned or the engine stops. Once the flag has been cleared by
/// another, the monitor gives its worker a second and ends.
class KyTransferMonitor {
public:
    /// @param active  the engine's flag; belongs to the engine
    KyTransferMonitor(KyStatusRecord& record, const std::atomic<bool>& active)
        : m_record(record), m_active(active) {}

    /// @param milliseconds  between two polls; 0, the default, for none
    void SetPause(unsigned int milliseconds) { m_pauseMs = milliseconds; }

    /// The body of a monitor. @param request  Transaction::request
    void Watch(Transaction::Kind kind, unsigned long long request);

    /// The same for the current transaction.
    void WatchCurrent(Transaction::Kind kind) { Watch(kind, m_record.CurrentRequest()); }

    /// The body of the monitor of a push, which knows nothing to look for: it holds the record in progress while
    /// the active flag is set, for 180 seconds at most, and fails it.
    void HoldForPush();

private:
    void Run(const MonitorRules& rules, unsigned long long request);
    void Hold();

    KyStatusRecord& m_record;
    const std::atomic<bool>& m_active;
    std::atomic<unsigned int> m_pauseMs{0};
};

}  // namespace ky_engine

#endif
