#ifndef HOST_KYIPCWRITEFIFO_H
#define HOST_KYIPCWRITEFIFO_H

#include "platform/KyFd.h"

class KyFifoDirectory;

/// The FIFO that a session writes. One thread uses it at a time; other sessions and processes may write to
/// the same FIFO. The operations return a KyIpcFifoSession::IpcStatus and do not throw.
class KyIpcWriteFifo {
public:
    /// Opens the FIFO. To be called once. @param name  passes KyFifoDirectory::FitName()
    int Open(const KyFifoDirectory& directory, const char* name);

    /// Writes one message. Raises no SIGPIPE. @param milliseconds  longest wait, for lock and room together
    int Write(const char* bytes, int count, int milliseconds);

    int Descriptor() const { return m_fifo.Get(); }

private:
    KyFd m_fifo;
};

#endif
