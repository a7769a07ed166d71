#include "host/KyIpcReadFifo.h"

#include <poll.h>

#include <cerrno>
#include <cstdio>

#include "host/KyDeadline.h"
#include "platform/KyDlog.h"
#include "platform/KyIpcFifoSession.h"

int KyIpcReadFifo::Open(const KyFifoDirectory& directory, const char* name, mode_t mode) {
    std::snprintf(m_name, sizeof m_name, "%s", name);
    return directory.MakeFifo(name, mode, m_fifo);
}

int KyIpcReadFifo::Remove(const KyFifoDirectory& directory) const {
    return directory.RemoveFifo(m_name, m_fifo);
}

int KyIpcReadFifo::Read(KyIpcMsgBuffer& buffer, int milliseconds, int peer, const char* session) {
    const int status = FindMessage(KyDeadline(milliseconds), peer);
    const size_t skipped = m_decoder.TakeSkipped();
    if (skipped > 0) {
        __dlog_printfex(KY_DLOG_WARNING, "KyIpcFifoSession", "Read",
                        "Session %s: skipped %zu bytes of no whole message in %s", session, skipped, m_name);
    }
    buffer.Clear();
    if (status != KyIpcFifoSession::IPC_OK && status != KyIpcFifoSession::IPC_TIMEOUT) return status;
    const KyIpcMsgBuffer& message = m_decoder.Message();
    return buffer.Append(message.GetBuf(), message.GetLength()) ? status : KyIpcFifoSession::IPC_NO_MEMORY;
}

/// Reads at most once after the deadline: a writer of endless garbage cannot block the reader.
int KyIpcReadFifo::FindMessage(const KyDeadline& deadline, int peer) {
    for (bool last = false; !Decode();) {
        if (last) return KyIpcFifoSession::IPC_TIMEOUT;
        last = deadline.Passed();
        const int status = Fill(deadline, peer);
        if (status != KyIpcFifoSession::IPC_OK) return status;
    }
    return KyIpcFifoSession::IPC_OK;
}

bool KyIpcReadFifo::Decode() {
    m_from += m_decoder.Feed(m_chunk.data() + m_from, m_to - m_from);
    return m_decoder.IsWhole();
}

/// Waits for bytes and reads them into the empty chunk; may return IPC_OK without any. Reads also when the
/// peer has gone: the peer may have replied before.
int KyIpcReadFifo::Fill(const KyDeadline& deadline, int peer) {
    pollfd fifos[] = {{m_fifo.fd.Get(), POLLIN, 0}, {peer, 0, 0}};
    const int ready = poll(fifos, 2, deadline.Remaining());
    if (ready == 0) return KyIpcFifoSession::IPC_TIMEOUT;
    const ssize_t count = ready < 0 ? -1 : read(m_fifo.fd.Get(), m_chunk.data(), m_chunk.size());
    if (count <= 0) {
        const bool again = count < 0 && (errno == EINTR || errno == EAGAIN);
        if (again && errno == EAGAIN && fifos[1].revents != 0) return KyIpcFifoSession::IPC_NO_READER;
        return again ? KyIpcFifoSession::IPC_OK : KyIpcFifoSession::IPC_FAILED;
    }
    m_from = 0;
    m_to = static_cast<size_t>(count);
    return KyIpcFifoSession::IPC_OK;
}
