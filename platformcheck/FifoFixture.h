#ifndef PLATFORMCHECK_FIFOFIXTURE_H
#define PLATFORMCHECK_FIFOFIXTURE_H

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "platform/KyIpcFifoSession.h"
#include "platform/KyIpcMsgBuffer.h"
#include "platformcheck/PlatformTest.h"

/// What the tests of KyIpcFifoSession share.
namespace ky_platform_check {

constexpr int kFifoBound = 3000;  // ms; longest wait for a message that has been written

inline std::string Text(const KyIpcMsgBuffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.GetBuf()), static_cast<size_t>(buffer.GetLength())};
}

/// A session with the name and the closing mode that all tests use.
struct FifoSession : KyIpcFifoSession {
    FifoSession() : KyIpcFifoSession("platform-check", IPC_CLOSE_NO_CONFIRM) {}
};

/// A test with a session that reads a FIFO, and one that writes to it. The test opens them. At its end, the handling
/// of SIGPIPE must be as before.
class FifoTest : public PlatformTest {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        m_sigpipe = SigpipeState();
    }

    void TearDown() override {
        EXPECT_EQ(SigpipeState(), m_sigpipe) << "the sessions have changed the handling of SIGPIPE";
        PlatformTest::TearDown();
    }

    /// Opens both sessions. Call it in ASSERT_NO_FATAL_FAILURE.
    void Open() {
        m_writer.SetWriteBound(kFifoBound);
        ASSERT_EQ(m_reader.OpenReadFifo(m_fifo.c_str(), 0600), KyIpcFifoSession::IPC_OK);
        ASSERT_EQ(m_writer.OpenCtrlFifo(m_fifo.c_str()), KyIpcFifoSession::IPC_OK);
    }

    int Write(const std::string& message) {
        return m_writer.WriteCtrl(message.data(), static_cast<int>(message.size()));
    }

    /// Reads a message and compares it.
    testing::AssertionResult Reads(const std::string& message) {
        KyIpcMsgBuffer buffer(0);
        const int status = m_reader.Read(&buffer, kFifoBound);
        if (status != KyIpcFifoSession::IPC_OK)
            return testing::AssertionFailure()
                   << "Read() returns " << status << " for a message of " << message.size() << " bytes";
        return Same(message, Text(buffer));
    }

    /// Success if the FIFO holds no message.
    testing::AssertionResult IsEmpty() {
        KyIpcMsgBuffer buffer(0);
        const int status = m_reader.Read(&buffer, 0);
        if (status == KyIpcFifoSession::IPC_TIMEOUT) return testing::AssertionSuccess();
        return testing::AssertionFailure()
               << "Read() returns " << status << " and " << buffer.GetLength() << " bytes";
    }

    /// Path of the session's FIFO; empty if /proc does not tell it.
    static std::string PathOf(const KyIpcFifoSession& session) {
        char path[4096];
        const std::string link = "/proc/self/fd/" + std::to_string(session.ReadDescriptor());
        const ssize_t length = readlink(link.c_str(), path, sizeof path);
        return length > 0 && path[0] == '/' ? std::string(path, static_cast<size_t>(length)) : std::string();
    }

    /// Path that a FIFO with the name `m_fifo` has; empty if /proc does not tell it.
    std::string FifoPath() const {
        FifoSession session;
        EXPECT_EQ(session.OpenReadFifo(m_fifo.c_str(), 0600), KyIpcFifoSession::IPC_OK);
        return PathOf(session);
    }

    const std::string m_fifo = "ky-platform-check-" + std::to_string(getpid());
    FifoSession m_reader;
    FifoSession m_writer;

private:
    /// The handler, and whether this thread blocks the signal.
    static std::pair<void (*)(int), int> SigpipeState() {
        struct sigaction action = {};
        sigset_t mask;
        sigaction(SIGPIPE, nullptr, &action);
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        return {action.sa_handler, sigismember(&mask, SIGPIPE)};
    }

    std::pair<void (*)(int), int> m_sigpipe;
};

/// A child process that does its work and exits.
class Child {
public:
    template <typename Work>
    explicit Child(Work work) : m_process(fork()) {
        if (m_process != 0) return;
        signal(SIGALRM, SIG_DFL);
        alarm(60);  // ends a child whose parent has died
        work();
        _exit(0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() { Kill(); }

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
