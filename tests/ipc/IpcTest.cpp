#include "IpcTest.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>

#include "host/KyHostIpc.h"
#include "host/KyIpcFrame.h"

int __wrap_poll(pollfd* files, nfds_t count, int milliseconds) {
    return s_poll(files, count, milliseconds);
}

std::string BytesOf(const KyIpcMsgBuffer& buffer) {
    return std::string(reinterpret_cast<const char*>(buffer.GetBuf()),
                       static_cast<size_t>(buffer.GetLength()));
}

std::string BytesOf(KyTferMsg& message) {
    KyIpcMsgBuffer buffer(0);
    message.Serialize(&buffer);
    return BytesOf(buffer);
}

std::string FrameOf(const std::string& message) {
    KyIpcMsgBuffer frame(0);
    EXPECT_EQ(ky_frame::Encode(message.data(), static_cast<int>(message.size()), frame), 0);
    return BytesOf(frame);
}

KyFd WriteRaw(const std::string& path, const std::string& bytes) {
    KyFd fifo(open(path.c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ(write(fifo.Get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    return fifo;
}

Peer::Peer(const std::function<void(int told)>& body) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    std::fflush(nullptr);
    const bool failedBefore = testing::Test::HasFailure();
    m_process = fork();
    if (m_process == 0) {
        close(ends[0]);
        s_poll = __real_poll;
        body(ends[1]);
        _exit(testing::Test::HasFailure() && !failedBefore ? 1 : 0);
    }
    close(ends[1]);
    m_told = KyFd(ends[0]);
}

void Peer::Tell(int told) {
    EXPECT_EQ(write(told, "x", 1), 1);
}

void Peer::Hear() const {
    pollfd end = {m_told.Get(), POLLIN, 0};
    char byte = 0;
    const bool heard = __real_poll(&end, 1, 10'000) == 1 && read(m_told.Get(), &byte, 1) == 1;
    EXPECT_TRUE(heard) << "the other process has not come so far";
}

void Peer::Kill() {
    if (m_process > 0) kill(m_process, SIGKILL);
    Wait();
}

int Peer::Wait() {
    int status = -1;
    if (m_process > 0) waitpid(m_process, &status, 0);
    m_process = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

IpcTest::IpcTest() {
    setenv("KY_IPC_DIR", m_directory.c_str(), 1);
    EXPECT_EQ(ky_host::CreateIpcDirectory(), 0);
}

IpcTest::~IpcTest() {
    s_poll = __real_poll;
    unsetenv("KY_IPC_DIR");
    EXPECT_EQ(OpenDescriptors(), m_descriptors);
}
