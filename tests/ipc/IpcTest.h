#ifndef IPC_IPCTEST_H
#define IPC_IPCTEST_H

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/types.h>

#include <functional>
#include <string>

#include "host/KyFd.h"
#include "messages/KyTferMsg.h"
#include "platform/KyIpcFifoSession.h"
#include "platform/KyIpcMsgBuffer.h"
#include "support/TempDir.h"

extern "C" int __real_poll(pollfd* files, nfds_t count, int milliseconds);
extern "C" int __wrap_poll(pollfd* files, nfds_t count, int milliseconds);

/// What poll() does in the code under test, until the end of the test; forked processes have the real one.
inline std::function<int(pollfd* files, nfds_t count, int milliseconds)> s_poll = __real_poll;

std::string BytesOf(const KyIpcMsgBuffer& buffer);
std::string BytesOf(KyTferMsg& message);
std::string FrameOf(const std::string& message);

/// Writes bytes as one who knows nothing of sessions, and does not wait for a reader to open the FIFO.
KyFd WriteRaw(const std::string& path, const std::string& bytes);

struct Session : KyIpcFifoSession {
    Session() : KyIpcFifoSession("test", IPC_CLOSE_NO_CONFIRM) {}
    int Write(const std::string& message) {
        return WriteCtrl(message.data(), static_cast<int>(message.size()));
    }
};

/// A process beside the test's own. It ends with its body, or is killed when the object goes.
class Peer {
public:
    /// @param body  runs in the other process and gets the descriptor that Tell() takes
    explicit Peer(const std::function<void(int told)>& body);
    Peer(Peer&&) = delete;
    ~Peer() { Kill(); }

    static void Tell(int told);                   ///< in the other process: wakes Hear()
    void Hear() const;                            ///< waits for one Tell(); fails the test after ten seconds
    int HeardAt() const { return m_told.Get(); }  ///< readable after Tell() and after the process's end

    void Kill();
    int Wait();  ///< the exit status, -1 for a process that was killed

private:
    KyFd m_told;
    pid_t m_process;
};

/// A test with a directory for FIFOs of its own, which must lose no descriptor.
class IpcTest : public testing::Test {
protected:
    IpcTest();
    ~IpcTest() override;

    std::string Path(const std::string& name) const { return m_directory + "/" + name; }

    const int m_descriptors = OpenDescriptors();
    const TempDir m_temp;
    const std::string m_directory = m_temp / "ipc";
};

#endif
