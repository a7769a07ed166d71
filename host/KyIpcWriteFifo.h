#ifndef HOST_KYIPCWRITEFIFO_H
#define HOST_KYIPCWRITEFIFO_H

#include "platform/KyFd.h"

class KyFifoDirectory;

/// The FIFO that a session writes. One thread uses it at a time; those of other sessions, in this process and
/// in others, may write to the same FIFO. The operations return a KyIpcFifoSession::IpcStatus and throw
/// nothing.
class KyIpcWriteFifo {
public:
    /// Opens the FIFO of that name, which is fit. To be called once.
    int Open(const KyFifoDirectory& directory, const char* name);

    /// Writes one message, for which it waits at most `milliseconds` altogether. Raises no SIGPIPE.
    int Write(const char* bytes, int count, int milliseconds);

    int Descriptor() const { return m_fifo.Get(); }

private:
    KyFd m_fifo;
};

#endif
