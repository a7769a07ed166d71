#ifndef FUZZ_RECORDCHECK_H
#define FUZZ_RECORDCHECK_H

#include <mutex>

#include "engine/KyTferClient.h"
#include "messages/KyTferStatusMsg.h"

/// Checks the invariants of the engine's status record. Any thread may call any operation.
class RecordCheck {
public:
    explicit RecordCheck(KyTferClient& engine) : m_engine(engine) {}

    /// Call these before a fetch or directory request, and with its result. In between, the record may be that
    /// of the transaction before.
    void Requesting();
    void Requested(const KyTferStatusMsg& result);
    /// Call this before a push request: it may write into the record of the running transaction.
    void PushRequested();
    /// Call this before the engine gets a size from the device.
    void SizeChanged();

    /// Checks a copy of the record. @return the copy
    KyTferStatusMsg Check();

private:
    KyTferClient& m_engine;
    std::mutex m_mutex;
    bool m_completed = false;  // the last record was that of a completed fetch
    bool m_requesting = false;
    bool m_pushed = false;       // since the transaction began
    bool m_sizeChanged = false;  // since the transaction began
};

#endif
