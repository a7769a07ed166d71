#ifndef HOST_KYIPCREADFIFO_H
#define HOST_KYIPCREADFIFO_H

#include <limits.h>

#include <array>
#include <cstddef>

#include "host/KyFifoDirectory.h"
#include "host/KyIpcFrame.h"

class KyDeadline;

/// The FIFO that a session reads, and what has been read from it but not been handed out. One thread uses it
/// at a time. The operations return a KyIpcFifoSession::IpcStatus and throw nothing.
class KyIpcReadFifo {
public:
    // Not defaulted: make_unique would then clear the chunk, which nobody reads before it has been written.
    KyIpcReadFifo() {}  // NOLINT(modernize-use-equals-default)

    /// Makes the FIFO and opens it. `name` is fit; to be called once.
    int Open(const KyFifoDirectory& directory, const char* name, mode_t mode);

    /// Removes the FIFO, if its name is still its own.
    int Remove(const KyFifoDirectory& directory) const;

    /// Waits at most `milliseconds` for one message, and no longer than somebody reads the FIFO `peer`, which
    /// this process has open for writing; -1 for none. `session` names the reader in log lines.
    int Read(KyIpcMsgBuffer& buffer, int milliseconds, int peer, const char* session);

    int Descriptor() const { return m_fifo.fd.Get(); }

private:
    static constexpr size_t CHUNK = 65536;  // what a FIFO holds: one read empties it

    int FindMessage(const KyDeadline& deadline, int peer);
    bool Decode();
    int Fill(const KyDeadline& deadline, int peer);

    KyMadeFifo m_fifo;
    char m_name[NAME_MAX + 1] = "";
    KyIpcFrameDecoder m_decoder;
    size_t m_from = 0;  // of the chunk's bytes, those that are still to be decoded
    size_t m_to = 0;
    std::array<unsigned char, CHUNK> m_chunk;
};

#endif
