#ifndef HOST_KYIPCREADFIFO_H
#define HOST_KYIPCREADFIFO_H

#include <limits.h>

#include <array>
#include <cstddef>

#include "host/KyFifoDirectory.h"
#include "host/KyIpcFrame.h"

class KyDeadline;

/// The FIFO that a session reads, and the bytes that were read but not returned. One thread uses it at a
/// time. The operations return a KyIpcFifoSession::IpcStatus and do not throw.
class KyIpcReadFifo {
public:
    // Not defaulted: make_unique would clear the chunk, which is written before it is read.
    KyIpcReadFifo() {}  // NOLINT(modernize-use-equals-default)

    /// Creates the FIFO and opens it. To be called once. @param name  passes KyFifoDirectory::FitName()
    int Open(const KyFifoDirectory& directory, const char* name, mode_t mode);

    /// Removes the FIFO if the name still belongs to it.
    int Remove(const KyFifoDirectory& directory) const;

    /// Waits for one message.
    ///
    /// @param peer     the FIFO that this process writes: the wait ends when it loses its reader; -1 for none
    /// @param session  name for log lines
    int Read(KyIpcMsgBuffer& buffer, int milliseconds, int peer, const char* session);

    int Descriptor() const { return m_fifo.fd.Get(); }

private:
    static constexpr size_t kChunkBytes = 65536;  // capacity of a FIFO: one read empties it

    int FindMessage(const KyDeadline& deadline, int peer);
    bool Decode();
    int Fill(const KyDeadline& deadline, int peer);

    KyMadeFifo m_fifo;
    char m_name[NAME_MAX + 1] = "";
    KyIpcFrameDecoder m_decoder;
    size_t m_from = 0;  // the bytes of the chunk from m_from to m_to have not been decoded
    size_t m_to = 0;
    std::array<unsigned char, kChunkBytes> m_chunk;
};

#endif
