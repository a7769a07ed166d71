#ifndef PLATFORMCHECK_FIFOCHECK_H
#define PLATFORMCHECK_FIFOCHECK_H

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "platform/KyIpcFifoSession.h"
#include "platform/KyIpcMsgBuffer.h"
#include "platformcheck/Check.h"

/// What the checks of the FIFO session share. Internal to the library.
namespace ky_platform_check {

constexpr int FIFO_BOUND = 3000;  // ms, for what is to come at once

inline std::string Text(const KyIpcMsgBuffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.GetBuf()), static_cast<size_t>(buffer.GetLength())};
}

/// A session that reads a FIFO, and one that writes to it.
struct SessionPair {
    KyIpcFifoSession reader{"platform-check", KyIpcFifoSession::IPC_CLOSE_NO_CONFIRM};
    KyIpcFifoSession writer{"platform-check", KyIpcFifoSession::IPC_CLOSE_NO_CONFIRM};

    bool Open(Judge& judge, const std::string& name) {
        writer.SetWriteBound(FIFO_BOUND);
        return judge.Equal("OpenReadFifo()", KyIpcFifoSession::IPC_OK,
                           reader.OpenReadFifo(name.c_str(), 0600)) &&
               judge.Equal("OpenCtrlFifo()", KyIpcFifoSession::IPC_OK, writer.OpenCtrlFifo(name.c_str()));
    }

    int Write(const std::string& message) {
        return writer.WriteCtrl(message.data(), static_cast<int>(message.size()));
    }

    /// Reads and expects this message. @return whether it came
    bool Comes(Judge& judge, const std::string& message, const std::string& when) {
        KyIpcMsgBuffer buffer(0);
        return judge.Equal("Read() " + when, KyIpcFifoSession::IPC_OK, reader.Read(&buffer, FIFO_BOUND)) &&
               judge.Equal("the message " + when, message, Text(buffer));
    }

    /// Expects that the FIFO holds no message.
    bool IsEmpty(Judge& judge, const std::string& when) {
        KyIpcMsgBuffer buffer(0);
        return judge.Equal("Read() " + when, KyIpcFifoSession::IPC_TIMEOUT, reader.Read(&buffer, 0));
    }
};

/// A child process that does something and ends.
class Peer {
public:
    template <typename Work>
    explicit Peer(Work work) : m_process(fork()) {
        if (m_process != 0) return;
        work();
        _exit(0);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer() { Kill(); }

    void Kill() {
        if (m_process <= 0) return;
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
        m_process = 0;
    }

private:
    pid_t m_process;
};

}  // namespace ky_platform_check

#endif
