#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <filesystem>
#include <tuple>
#include <vector>

#include "IpcTest.h"

extern "C" int __wrap_poll(pollfd* files, nfds_t count, int milliseconds);
extern "C" int __wrap_poll(pollfd* files, nfds_t count, int milliseconds) {
    return s_poll(files, count, milliseconds);
}

namespace {

namespace fs = std::filesystem;

constexpr char NAME[] = "test-Fifo";

void SignalEvery(suseconds_t microseconds) {
    signal(SIGALRM, [](int) {});
    const itimerval often = {{0, microseconds}, {0, microseconds}};
    setitimer(ITIMER_REAL, &often, nullptr);
}

class SessionTest : public IpcTest {
protected:
    SessionTest() { EXPECT_EQ(m_reader.OpenReadFifo(NAME, 0600), 0); }
    ~SessionTest() override { m_writer.Close(); }

    /// The next message, or the status and what had arrived.
    std::string Read(int milliseconds = 10'000) {
        KyIpcMsgBuffer buffer(200);
        const int status = m_reader.Read(&buffer, milliseconds);
        return (status == 0 ? "" : std::to_string(status) + ":") + BytesOf(buffer);
    }

    void OpenWriter() { ASSERT_EQ(m_writer.OpenCtrlFifo(NAME), 0); }

    /// A process, disturbed by signals, that writes messages of one letter; a negative count has no end.
    pid_t ForkWriter(char letter, int count) {
        const pid_t process = fork();
        if (process != 0) return process;
        SignalEvery(200);
        OpenWriter();
        while (count != 0 && m_writer.Write(std::string(10'000, letter)) == 0)
            --count;
        _exit(count == 0 ? 0 : 1);
    }

    Session m_writer;
};

TEST_F(SessionTest, OpeningIsRefusedAndHarmsNothing) {
    fs::create_symlink(NAME, Path("link"));
    fs::create_directory_symlink(m_directory, m_temp / "link");
    fs::create_directory(m_temp / "public");
    fs::permissions(m_temp / "public", fs::perms::all);
    const std::tuple<const char*, const char*, int> rows[] = {
        {"ipc", nullptr, Session::IPC_BAD_ARGUMENT}, {"ipc", "../ipc/test-Fifo", Session::IPC_BAD_ARGUMENT},
        {"ipc", "link", Session::IPC_REFUSED},       {"link", NAME, Session::IPC_REFUSED},
        {"public", NAME, Session::IPC_REFUSED},      {"missing", NAME, Session::IPC_NO_FIFO},
    };
    for (const auto& [directory, name, status] : rows) {
        SCOPED_TRACE(testing::Message() << directory << ' ' << name);
        setenv("KY_IPC_DIR", (m_temp / directory).c_str(), 1);
        Session session;
        EXPECT_EQ(session.OpenCtrlFifo(name), status);
        EXPECT_EQ(session.OpenReadFifo(name, 0600), status);
        EXPECT_EQ(session.Write(""), Session::IPC_NOT_OPEN);
        EXPECT_EQ(ky_host::CreateIpcDirectory() != 0, name == NAME && status == Session::IPC_REFUSED);
    }
    EXPECT_EQ(fs::read_symlink(Path("link")), NAME);
    EXPECT_EQ(fs::status(m_temp / "missing").permissions(), fs::perms(01770));
}

TEST_F(SessionTest, ModeIsWhatWasAskedForAndDescriptorsCloseOnExec) {
    for (const auto& [mask, mode] : {std::pair(0U, 0777U), std::pair(022U, 0777U), std::pair(0777U, 0620U)}) {
        const mode_t before = umask(mask);
        EXPECT_EQ(m_reader.OpenReadFifo(NAME, mode), 0);
        umask(before);
        EXPECT_EQ(fs::status(Path(NAME)).permissions(), fs::perms(mode)) << mask;
    }
    OpenWriter();
    int closing = 0;
    for (int fd = 3; fd < 256; ++fd)
        closing += fcntl(fd, F_GETFD) >= 0 && (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
    EXPECT_GE(closing, OpenDescriptors() - m_descriptors);
}

TEST_F(SessionTest, StaleFifoIsReplacedAndOnlyItsOwnRemoved) {
    Session dead;
    ASSERT_EQ(dead.OpenReadFifo(NAME, 0600), 0);
    WriteRaw(Path(NAME), FrameOf("old"));
    ASSERT_EQ(m_reader.OpenReadFifo(NAME, 0600), 0);
    OpenWriter();
    EXPECT_EQ(m_writer.Write("new"), 0);
    EXPECT_EQ(Read(), "new");
    EXPECT_EQ(Read(0), "4:");
    EXPECT_EQ(dead.Close(), 0);
    EXPECT_TRUE(fs::exists(Path(NAME)));
    EXPECT_EQ(m_reader.Close(), 0);
    EXPECT_FALSE(fs::exists(Path(NAME)));
    EXPECT_EQ(m_reader.Close(), 0);
}

/// Signals disturb all waits, and again and again a writer is killed, within a frame as a rule.
TEST_F(SessionTest, FramesOfManyWritersStayWhole) {
    std::vector<pid_t> processes;
    for (const char letter : {'a', 'b', 'c', 'd'})
        processes.push_back(ForkWriter(letter, 200));
    SignalEvery(200);
    for (int round = 0; round < 16; ++round) {
        const pid_t victim = ForkWriter('v', -1);
        for (int count = 0; count < 50;) {
            const std::string message = Read();
            ASSERT_EQ(message, std::string(10'000, message.front()));
            count += message.front() != 'v';
        }
        kill(victim, SIGKILL);
        waitpid(victim, nullptr, 0);
    }
    SignalEvery(0);
    for (const pid_t process : processes) {
        int status = -1;
        EXPECT_TRUE(waitpid(process, &status, 0) == process && status == 0) << status;
    }
}

/// The signal would end this process.
TEST_F(SessionTest, ReaderThatGoesRaisesNoSignal) {
    signal(SIGPIPE, SIG_DFL);
    OpenWriter();
    m_reader.Close();
    EXPECT_EQ(m_writer.Write("x"), Session::IPC_NO_READER);
    EXPECT_EQ(m_writer.Write(std::string(100'000, 'x')), Session::IPC_NO_READER);
    EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL);
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGPIPE), 0);
}

/// Who had asked a service that was then killed waited a minute for its answer once.
TEST_F(SessionTest, ReadEndsWhenThePeerHasGone) {
    Session asker;
    ASSERT_EQ(asker.OpenReadFifo("answer", 0600), 0);
    ASSERT_EQ(asker.OpenCtrlFifo(NAME), 0);
    KyIpcMsgBuffer buffer(200);
    EXPECT_EQ(asker.Read(&buffer, 1), Session::IPC_TIMEOUT);
    int polls = 0;
    s_poll = [&](pollfd* files, nfds_t count, int milliseconds) {
        if (++polls > 1) return __real_poll(files, count, milliseconds);
        const int ready = __real_poll(files, count, 0);
        EXPECT_EQ(ready, 0);
        WriteRaw(Path("answer"), FrameOf("last") + FrameOf("half").substr(0, 10));
        m_reader.Close();
        files[1].revents = POLLERR;  // it answered and went after the look at the first of the two
        return 1;
    };
    EXPECT_EQ(asker.Read(&buffer, 10'000), 0);
    EXPECT_EQ(BytesOf(buffer), "last");
    EXPECT_EQ(asker.Read(&buffer, 10'000), Session::IPC_NO_READER);
    EXPECT_EQ(buffer.GetLength(), 0);
    EXPECT_EQ(asker.Close(), 0);
}

/// A reader that is held never ends this test.
TEST_F(SessionTest, FloodDoesNotHoldTheReader) {
    s_poll = [&](pollfd* files, nfds_t count, int milliseconds) {
        WriteRaw(Path(NAME), std::string(100, '\xF4'));
        return __real_poll(files, count, milliseconds);
    };
    EXPECT_EQ(Read(5), "4:");
}

}  // namespace
