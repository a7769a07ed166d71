#ifndef FUZZ_RECORDCHECK_H
#define FUZZ_RECORDCHECK_H

#include <mutex>

#include "engine/KyTferClient.h"
#include "messages/KyTferStatusMsg.h"

/// What holds for every copy of the engine's status record, from its first to its last. Any thread may
/// call it.
class RecordCheck {
public:
    explicit RecordCheck(KyTferClient& engine) : m_engine(engine) {}

    /// Before a fetch or directory request is made, and what it has returned. In between nobody can tell
    /// whose record it is.
    void Requesting();
    void Requested(const KyTferStatusMsg& result);
    /// Before a push is requested: it may write into the record of the running transaction.
    void PushRequested();
    /// The device has announced a size.
    void SizeChanged();

    /// Takes a copy, which is returned, and looks at it.
    KyTferStatusMsg Check();

private:
    KyTferClient& m_engine;
    std::mutex m_mutex;
    bool m_completed = false;  // the transaction's worker has completed it
    bool m_requesting = false;
    bool m_pushed = false;       // a push has been requested since the transaction began
    bool m_sizeChanged = false;  // a size has been announced since then
};

#endif
