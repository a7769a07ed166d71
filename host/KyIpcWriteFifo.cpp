#include "host/KyIpcWriteFifo.h"

#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <time.h>

#include <algorithm>
#include <cerrno>

#include "host/KyDeadline.h"
#include "host/KyFifoDirectory.h"
#include "host/KyIpcFrame.h"
#include "platform/KyIpcFifoSession.h"

namespace {

constexpr long kMinPauseNs = 50'000;
constexpr long kMaxPauseNs = 2'000'000;

/// Blocks SIGPIPE on this thread: write() raises it on the writing thread.
class SigpipeBlock {
public:
    SigpipeBlock() {
        sigemptyset(&m_sigpipe);
        sigaddset(&m_sigpipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_sigpipe, &m_before);
        m_pending = sigismember(&m_before, SIGPIPE) == 1 && Pending();
    }
    SigpipeBlock(const SigpipeBlock&) = delete;
    SigpipeBlock& operator=(const SigpipeBlock&) = delete;
    ~SigpipeBlock() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

    /// Consumes the signal that a write has just raised; a signal that was pending before stays.
    void Discard() const {
        const timespec now = {0, 0};
        while (!m_pending && sigtimedwait(&m_sigpipe, nullptr, &now) < 0 && errno == EINTR) {
        }
    }

private:
    static bool Pending() {
        sigset_t pending;
        return sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    }

    sigset_t m_sigpipe;
    sigset_t m_before;
    bool m_pending;
};

/// Excludes other writers. The kernel releases the lock when the process dies.
class FifoLock {
public:
    explicit FifoLock(int fifo) : m_fifo(fifo) {}
    FifoLock(const FifoLock&) = delete;
    FifoLock& operator=(const FifoLock&) = delete;
    ~FifoLock() {
        if (m_held) flock(m_fifo, LOCK_UN);
    }

    /// Polls: flock() has no time-out.
    int Acquire(const KyDeadline& deadline) {
        for (timespec pause = {0, kMinPauseNs};; pause.tv_nsec = std::min(2 * pause.tv_nsec, kMaxPauseNs)) {
            m_held = flock(m_fifo, LOCK_EX | LOCK_NB) == 0;
            if (m_held) return KyIpcFifoSession::IPC_OK;
            if (errno != EWOULDBLOCK && errno != EINTR) return KyIpcFifoSession::IPC_FAILED;
            if (deadline.Passed()) return KyIpcFifoSession::IPC_TIMEOUT;
            nanosleep(&pause, nullptr);
        }
    }

private:
    const int m_fifo;
    bool m_held = false;
};

int WaitForRoom(int fifo, const KyDeadline& deadline) {
    pollfd full = {fifo, POLLOUT, 0};
    const int ready = poll(&full, 1, deadline.Remaining());
    if (ready == 0) return KyIpcFifoSession::IPC_TIMEOUT;
    return ready > 0 || errno == EINTR ? KyIpcFifoSession::IPC_OK : KyIpcFifoSession::IPC_FAILED;
}

/// Handles a failed write. @return IPC_OK to retry
int AfterFailure(int fifo, const SigpipeBlock& sigpipe, const KyDeadline& deadline) {
    if (errno == EINTR) return KyIpcFifoSession::IPC_OK;
    if (errno == EAGAIN) return WaitForRoom(fifo, deadline);
    if (errno != EPIPE) return KyIpcFifoSession::IPC_FAILED;
    sigpipe.Discard();
    return KyIpcFifoSession::IPC_NO_READER;
}

int WriteAll(int fifo, const KyIpcMsgBuffer& frame, const KyDeadline& deadline) {
    const SigpipeBlock sigpipe;
    const unsigned char* bytes = frame.GetBuf();
    const unsigned char* const end = bytes + frame.GetLength();
    int status = KyIpcFifoSession::IPC_OK;
    while (bytes < end && status == KyIpcFifoSession::IPC_OK) {
        const ssize_t count = write(fifo, bytes, static_cast<size_t>(end - bytes));
        if (count >= 0) {
            bytes += count;
        } else {
            status = AfterFailure(fifo, sigpipe, deadline);
        }
    }
    return status;
}

}  // namespace

int KyIpcWriteFifo::Open(const KyFifoDirectory& directory, const char* name) {
    return directory.OpenForWriting(name, m_fifo);
}

int KyIpcWriteFifo::Write(const char* bytes, int count, int milliseconds) {
    KyIpcMsgBuffer frame(count);
    int status = ky_frame::Encode(bytes, count, frame);
    if (status != KyIpcFifoSession::IPC_OK) return status;
    const KyDeadline deadline(milliseconds);
    FifoLock lock(m_fifo.Get());
    status = lock.Acquire(deadline);
    return status == KyIpcFifoSession::IPC_OK ? WriteAll(m_fifo.Get(), frame, deadline) : status;
}
