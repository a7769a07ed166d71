#ifndef IPC_IPCTEST_H
#define IPC_IPCTEST_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <filesystem>
#include <functional>

#include "host/KyFd.h"
#include "host/KyHostIpc.h"
#include "support/TempDir.h"
#include "support/Wire.h"

namespace fs = std::filesystem;

extern "C" int __real_poll(pollfd* files, nfds_t count, int milliseconds);

/// Replaces poll() in the code under test.
inline std::function<int(pollfd* files, nfds_t count, int milliseconds)> s_poll = __real_poll;

/// Writes bytes without a session. Does not wait for a reader to open the FIFO.
inline void WriteRaw(const std::string& path, const std::string& bytes) {
    const KyFd fifo(open(path.c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ(write(fifo.Get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

/// A test has its own directory for FIFOs, and must lose no descriptor.
class IpcTest : public testing::Test {
protected:
    IpcTest() {
        setenv("KY_IPC_DIR", m_directory.c_str(), 1);
        EXPECT_EQ(ky_host::CreateIpcDirectory(), 0);
    }

    ~IpcTest() override {
        s_poll = __real_poll;
        m_reader.Close();
        unsetenv("KY_IPC_DIR");
        EXPECT_EQ(OpenDescriptors(), m_descriptors);
    }

    std::string Path(const std::string& name) const { return m_directory + "/" + name; }

    const int m_descriptors = OpenDescriptors();
    const TempDir m_temp;
    const std::string m_directory = m_temp / "ipc";
    Session m_reader;
};

#endif
