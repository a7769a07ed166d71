// KyIpcFifoSession: names, opening, whole messages, bounds. FifoDamageTest.cpp tests damaged streams.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <atomic>
#include <functional>
#include <thread>

#include "platformcheck/FifoFixture.h"

using namespace ky_platform_check;

namespace {

using Session = KyIpcFifoSession;
using Fifo = FifoTest;

long long MillisecondsOf(const std::function<void()>& work) {
    const long long start = Now();
    work();
    return Now() - start;
}

TEST_F(Fifo, RefusesNamesThatArePaths) {
    for (const char* const name :
         {static_cast<const char*>(nullptr), "", "a/b", "/a", "..", "../a", "a..b"}) {
        SCOPED_TRACE(name == nullptr ? "(null)" : name);
        FifoSession session;
        EXPECT_EQ(session.OpenReadFifo(name, 0600), Session::IPC_BAD_ARGUMENT);
        EXPECT_EQ(session.OpenCtrlFifo(name), Session::IPC_BAD_ARGUMENT);
    }
}

TEST_F(Fifo, RefusesBadArgumentsAndClosedSessions) {
    Session closed(nullptr, Session::IPC_CLOSE_NO_CONFIRM);
    KyIpcMsgBuffer buffer(0);
    buffer.Append(reinterpret_cast<const unsigned char*>("old"), 3);
    EXPECT_EQ(closed.WriteCtrl("x", 1), Session::IPC_NOT_OPEN);
    EXPECT_EQ(closed.Read(&buffer, 0), Session::IPC_NOT_OPEN);
    EXPECT_EQ(buffer.GetLength(), 0);
    EXPECT_EQ(closed.ReadDescriptor(), -1);
    EXPECT_EQ(closed.Close(), Session::IPC_OK);
    ASSERT_NO_FATAL_FAILURE(Open());
    EXPECT_EQ(m_writer.WriteCtrl(nullptr, 1), Session::IPC_BAD_ARGUMENT);
    EXPECT_EQ(m_writer.WriteCtrl("x", -1), Session::IPC_BAD_ARGUMENT);
    EXPECT_EQ(m_reader.Read(nullptr, 0), Session::IPC_BAD_ARGUMENT);
}

TEST_F(Fifo, IsMadeWithItsModeUnderAnyUmask) {
    for (const mode_t mask : {0U, 022U, 0777U}) {
        for (const mode_t mode : {0600U, 0660U, 0777U}) {
            FifoSession session;
            umask(mask);
            EXPECT_EQ(session.OpenReadFifo(m_fifo.c_str(), mode), Session::IPC_OK);
            struct stat found = {};
            fstat(session.ReadDescriptor(), &found);
            EXPECT_EQ(found.st_mode & 07777, mode) << "with umask " << mask << " (decimal)";
        }
    }
}

TEST_F(Fifo, DescriptorsCloseOnExec) {
    constexpr int kMost = 1024;
    bool before[kMost];
    for (int i = 0; i < kMost; ++i)
        before[i] = fcntl(i, F_GETFD) >= 0;
    ASSERT_NO_FATAL_FAILURE(Open());
    for (int i = 0; i < kMost; ++i) {
        const int flags = before[i] ? -1 : fcntl(i, F_GETFD);
        EXPECT_TRUE(flags < 0 || (flags & FD_CLOEXEC) != 0) << "descriptor " << i << " stays open on exec";
    }
}

TEST_F(Fifo, OpeningFailsAtOnceWithoutAReader) {
    int status = -1;
    const auto open = [&] { status = m_writer.OpenCtrlFifo(m_fifo.c_str()); };
    EXPECT_LT(MillisecondsOf(open), 500) << "without a FIFO";
    EXPECT_EQ(status, Session::IPC_NO_FIFO);
    const std::string path = FifoPath();
    if (path.empty() || mkfifo(path.c_str(), 0600) != 0) GTEST_SKIP() << "needs /proc to find the FIFO";
    EXPECT_LT(MillisecondsOf(open), 500) << "without a reader";
    EXPECT_EQ(status, Session::IPC_NO_READER);
    unlink(path.c_str());
}

TEST_F(Fifo, RefusesOtherFilesAndLeavesThemUnchanged) {
    const std::string path = FifoPath();
    if (path.empty()) GTEST_SKIP() << "needs /proc to find the FIFO";
    const std::string file = m_directory + "/file";
    const std::string fifo = m_directory + "/fifo";
    WriteFileBytes(file, "a file");
    mkfifo(fifo.c_str(), 0600);
    const struct {
        const char* name;
        std::function<bool()> make;
    } rows[] = {{"a file", [&] { return WriteFileBytes(path, "a file"); }},
                {"a directory", [&] { return mkdir(path.c_str(), 0700) == 0; }},
                {"a link to a file", [&] { return symlink(file.c_str(), path.c_str()) == 0; }},
                {"a link to a FIFO", [&] { return symlink(fifo.c_str(), path.c_str()) == 0; }}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_TRUE(row.make());
        struct stat before = {};
        struct stat after = {};
        lstat(path.c_str(), &before);
        {
            FifoSession session;
            EXPECT_EQ(session.OpenReadFifo(m_fifo.c_str(), 0600), Session::IPC_REFUSED);
            EXPECT_EQ(session.OpenCtrlFifo(m_fifo.c_str()), Session::IPC_REFUSED);
        }
        lstat(path.c_str(), &after);
        EXPECT_EQ(after.st_ino, before.st_ino);
        EXPECT_EQ(after.st_mode, before.st_mode);
        std::remove(path.c_str());
    }
}

TEST_F(Fifo, ReplacesAStaleFifoAndItsContent) {
    const std::string path = FifoPath();
    if (path.empty() || mkfifo(path.c_str(), 0600) != 0) GTEST_SKIP() << "needs /proc to find the FIFO";
    const int old = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(write(old, "old data", 8), 8);
    ASSERT_NO_FATAL_FAILURE(Open());
    EXPECT_TRUE(IsEmpty());
    Write("new");
    EXPECT_TRUE(Reads("new"));
    struct stat before = {};
    struct stat now = {};
    fstat(old, &before);
    fstat(m_reader.ReadDescriptor(), &now);
    EXPECT_NE(now.st_ino, before.st_ino) << "the old FIFO is still in use";
    close(old);
}

TEST_F(Fifo, CarriesMessagesUpToAMillionBytes) {
    ASSERT_NO_FATAL_FAILURE(Open());
    const size_t sizes[] = {0, 1, 3, 4, 5, 255, 256, 4095, 4096, 4097, 65535, 65536, 65537, 300000, 1000000};
    std::thread writer([&] {
        for (const size_t size : sizes)
            if (Write(Noise(size, 3)) != Session::IPC_OK) return;
    });
    for (const size_t size : sizes) {
        const auto result = Reads(Noise(size, 3));
        EXPECT_TRUE(result);
        if (!result) break;
    }
    m_reader.Close();  // unblocks a writer that still waits
    writer.join();
}

TEST_F(Fifo, RefusesAMessageOfTwoMebibytes) {
    ASSERT_NO_FATAL_FAILURE(Open());
    EXPECT_EQ(Write(std::string(2 << 20, 'x')), Session::IPC_TOO_LARGE);
    EXPECT_TRUE(IsEmpty());
    Write("next");
    EXPECT_TRUE(Reads("next"));
}

TEST_F(Fifo, CloseRemovesOnlyItsOwnFifo) {
    FifoSession first;
    EXPECT_EQ(first.OpenReadFifo(m_fifo.c_str(), 0600), Session::IPC_OK);
    ASSERT_NO_FATAL_FAILURE(Open());  // replaces the FIFO of `first`
    EXPECT_EQ(first.Close(), Session::IPC_OK);
    EXPECT_EQ(m_writer.OpenCtrlFifo(m_fifo.c_str()), Session::IPC_OK) << "after Close() of a replaced FIFO";
    const std::string path = PathOf(m_reader);
    EXPECT_EQ(m_reader.Close(), Session::IPC_OK);
    EXPECT_EQ(m_reader.ReadDescriptor(), -1);
    EXPECT_EQ(first.OpenCtrlFifo(m_fifo.c_str()), Session::IPC_NO_FIFO) << "after Close()";
    struct stat found;
    EXPECT_NE(lstat(path.c_str(), &found), 0) << "the FIFO remains after Close()";
}

TEST_F(Fifo, SecondOpenAndDestructorRemoveTheFifo) {
    ASSERT_NO_FATAL_FAILURE(Open());
    const std::string other = m_fifo + "-2";
    EXPECT_EQ(m_reader.OpenReadFifo(other.c_str(), 0600), Session::IPC_OK);
    EXPECT_EQ(m_writer.OpenCtrlFifo(m_fifo.c_str()), Session::IPC_NO_FIFO) << "after the second open";
    FifoSession().OpenReadFifo(m_fifo.c_str(), 0600);
    EXPECT_EQ(m_writer.OpenCtrlFifo(m_fifo.c_str()), Session::IPC_NO_FIFO) << "after the destructor";
}

TEST_F(Fifo, DescriptorPollsAndOutlivesItsWriters) {
    ASSERT_NO_FATAL_FAILURE(Open());
    pollfd fifo = {m_reader.ReadDescriptor(), POLLIN, 0};
    EXPECT_EQ(poll(&fifo, 1, 0), 0) << "for an empty FIFO";
    Write("one");
    Write("two");
    EXPECT_EQ(poll(&fifo, 1, kFifoBound), 1) << "for two messages";
    EXPECT_TRUE(Reads("one"));
    EXPECT_TRUE(Reads("two"));
    m_writer.Close();
    EXPECT_EQ(poll(&fifo, 1, 0), 0) << "after the last writer has closed";
    EXPECT_TRUE(IsEmpty());
    EXPECT_EQ(m_writer.OpenCtrlFifo(m_fifo.c_str()), Session::IPC_OK);
    Write("three");
    EXPECT_TRUE(Reads("three"));
}

/// Sends this thread a signal every five milliseconds; interrupted system calls are not restarted.
class Interrupter {
public:
    Interrupter() {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGUSR1, &action, nullptr);
        m_thread = std::thread([this, target = pthread_self()] {
            for (; !m_stop; Pause(5))
                pthread_kill(target, SIGUSR1);
        });
    }
    Interrupter(const Interrupter&) = delete;
    Interrupter& operator=(const Interrupter&) = delete;
    ~Interrupter() {
        m_stop = true;
        m_thread.join();
    }

private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

class FifoBounds : public FifoTest {
protected:
    void ExpectBoundsHold() {
        const std::string large = Noise(1000000, 4);  // larger than the capacity of any FIFO
        KyIpcMsgBuffer buffer(0);
        for (const int bound : {-1, 0, 60}) {
            SCOPED_TRACE("bound " + std::to_string(bound));
            int status = -1;
            const long long read = MillisecondsOf([&] { status = m_reader.Read(&buffer, bound); });
            EXPECT_EQ(status, Session::IPC_TIMEOUT) << "of Read()";
            m_writer.SetWriteBound(bound);
            const long long written = MillisecondsOf([&] { status = Write(large); });
            EXPECT_EQ(status, Session::IPC_TIMEOUT) << "of WriteCtrl()";
            for (const long long took : {read, written}) {
                EXPECT_GE(took, bound - 1);
                EXPECT_LT(took, bound + 2000);
            }
            EXPECT_TRUE(IsEmpty()) << "after an incomplete message";
        }
        m_writer.SetWriteBound(kFifoBound);
        EXPECT_EQ(Write("next"), Session::IPC_OK);
        EXPECT_TRUE(Reads("next")) << "after incomplete messages";
    }
};

TEST_F(FifoBounds, Hold) {
    ASSERT_NO_FATAL_FAILURE(Open());
    ExpectBoundsHold();
}

TEST_F(FifoBounds, HoldUnderSignals) {
    ASSERT_NO_FATAL_FAILURE(Open());
    const Interrupter interrupter;
    ExpectBoundsHold();
}

}  // namespace
