#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <vector>

#include "IpcTest.h"
#include "host/KyHostIpc.h"

namespace {

namespace fs = std::filesystem;

constexpr char NAME[] = "test-Fifo";
constexpr int LONG = 10'000;  // ms; only a failing test waits so long

class SessionTest : public IpcTest {
protected:
    ~SessionTest() override { m_reader.Close(), m_writer.Close(); }

    void OpenReader() { ASSERT_EQ(m_reader.OpenReadFifo(NAME, 0600), 0); }

    /// The next message, or the status and what had arrived.
    std::string Read(int milliseconds = LONG) {
        KyIpcMsgBuffer buffer(200);
        const int status = m_reader.Read(&buffer, milliseconds);
        return status == 0 ? BytesOf(buffer) : std::to_string(status) + ":" + BytesOf(buffer);
    }

    Session& Writer(int bound = LONG) {
        EXPECT_EQ(m_writer.OpenCtrlFifo(NAME), 0);
        m_writer.SetWriteBound(bound);
        return m_writer;
    }

    Session m_reader, m_writer;
};

TEST_F(SessionTest, OpeningIsRefusedAtOnceAndHarmsNothing) {
    OpenReader();
    WriteFile(Path("file"), "content");
    fs::create_symlink(NAME, Path("link"));
    fs::create_symlink("nothing", Path("dangling"));
    ASSERT_EQ(mkfifo(Path("unread").c_str(), 0600), 0);
    const std::string longName(256, 'x');
    const struct {
        const char* name;
        int forReading, forWriting;
    } rows[] = {
        {nullptr, Session::IPC_BAD_ARGUMENT, Session::IPC_BAD_ARGUMENT},
        {"", Session::IPC_BAD_ARGUMENT, Session::IPC_BAD_ARGUMENT},
        {"..", Session::IPC_BAD_ARGUMENT, Session::IPC_BAD_ARGUMENT},
        {"../ipc/test-Fifo", Session::IPC_BAD_ARGUMENT, Session::IPC_BAD_ARGUMENT},
        {longName.c_str(), Session::IPC_BAD_ARGUMENT, Session::IPC_BAD_ARGUMENT},
        {"file", Session::IPC_REFUSED, Session::IPC_REFUSED},
        {"link", Session::IPC_REFUSED, Session::IPC_REFUSED},
        {"dangling", Session::IPC_REFUSED, Session::IPC_REFUSED},
        {"nothing", Session::IPC_OK, Session::IPC_NO_FIFO},
        {"unread", Session::IPC_OK, Session::IPC_NO_READER},
        {NAME, Session::IPC_OK, Session::IPC_OK},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name == nullptr ? "null" : row.name);
        Session session;
        EXPECT_EQ(session.OpenCtrlFifo(row.name), row.forWriting);
        EXPECT_EQ(session.Write(""), row.forWriting == 0 ? Session::IPC_OK : Session::IPC_NOT_OPEN);
        EXPECT_EQ(session.OpenReadFifo(row.name, 0600), row.forReading);
        EXPECT_EQ(session.ReadDescriptor() >= 0, row.forReading == 0);
    }
    EXPECT_EQ(ReadFile(Path("file")), "content");
    EXPECT_EQ(fs::read_symlink(Path("link")), NAME);
    EXPECT_FALSE(fs::exists(Path("nothing")));
}

TEST_F(SessionTest, DirectoryMustBePrivate) {
    fs::create_directory_symlink(m_directory, m_temp / "link");
    fs::create_directory(m_temp / "public");
    fs::permissions(m_temp / "public", fs::perms::all);
    const struct {
        const char* name;
        int opened, created;
    } rows[] = {
        {"missing", Session::IPC_NO_FIFO, Session::IPC_OK},
        {"missing", Session::IPC_OK, Session::IPC_OK},
        {"link", Session::IPC_REFUSED, Session::IPC_REFUSED},
        {"public", Session::IPC_REFUSED, Session::IPC_REFUSED},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        setenv("KY_IPC_DIR", (m_temp / row.name).c_str(), 1);
        EXPECT_EQ(m_reader.OpenReadFifo(NAME, 0600), row.opened);
        m_reader.Close();
        EXPECT_EQ(ky_host::CreateIpcDirectory(), row.created);
    }
    EXPECT_EQ(fs::status(m_temp / "missing").permissions(), fs::perms(01770));
}

TEST_F(SessionTest, ModeIsWhatWasAskedForAndDescriptorsCloseOnExec) {
    for (const mode_t mask : {0U, 022U, 0777U}) {
        for (const unsigned int mode : {0777U, 0620U}) {
            const mode_t before = umask(mask);
            EXPECT_EQ(m_reader.OpenReadFifo(NAME, mode), 0);
            umask(before);
            EXPECT_EQ(fs::status(Path(NAME)).permissions(), fs::perms(mode)) << mask;
        }
    }
    Writer();
    int closing = 0;
    for (int fd = 3; fd < 256; ++fd)
        closing += fcntl(fd, F_GETFD) >= 0 && (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
    EXPECT_GE(closing, OpenDescriptors() - m_descriptors);
}

TEST_F(SessionTest, StaleFifoIsReplacedAndOnlyItsOwnRemoved) {
    ASSERT_EQ(mkfifo(Path(NAME).c_str(), 0600), 0);
    const KyFd old = WriteRaw(Path(NAME), FrameOf("old"));
    OpenReader();
    EXPECT_EQ(write(old.Get(), FrameOf("late").data(), 13), 13);
    EXPECT_EQ(Writer().Write("new"), 0);
    EXPECT_EQ(Read(), "new");
    EXPECT_EQ(Read(0), "4:");
    Session successor;
    EXPECT_EQ(successor.OpenReadFifo(NAME, 0600), 0);
    EXPECT_EQ(m_reader.Close(), 0);
    EXPECT_TRUE(fs::exists(Path(NAME)));
    EXPECT_EQ(successor.Close(), 0);
    EXPECT_FALSE(fs::exists(Path(NAME)));
    EXPECT_EQ(successor.Close(), 0);
}

TEST_F(SessionTest, WriterKilledWithinAFrame) {
    OpenReader();
    const std::string torn(10'000, 't');
    for (const size_t length : {1U, 7U, 8U, 4096U, 9999U}) {
        SCOPED_TRACE(length);
        Peer victim([&](int told) {
            const KyFd fifo = WriteRaw(Path(NAME), FrameOf(torn).substr(0, length));
            flock(fifo.Get(), LOCK_EX);
            Peer::Tell(told);
            pause();
        });
        victim.Hear();
        EXPECT_EQ(Read(0), "4:" + torn.substr(0, length < 8 ? 0 : length - 8));
        victim.Kill();
        EXPECT_EQ(Writer().Write("next"), 0);
        EXPECT_EQ(Read(), "next");
    }
}

std::atomic<int> s_signals{0};

void Count(int) {
    ++s_signals;
}

void SignalEvery(suseconds_t microseconds) {
    signal(SIGALRM, Count);
    const itimerval often = {{0, microseconds}, {0, microseconds}};
    setitimer(ITIMER_REAL, &often, nullptr);
}

/// Signals disturb all waits, and writers are killed all the time.
TEST_F(SessionTest, FramesOfManyWritersStayWhole) {
    constexpr int EACH = 200;
    OpenReader();
    const auto write = [&](char letter, int count) {
        SignalEvery(200);
        while (count-- != 0)
            ASSERT_EQ(Writer().Write(std::string(10'000, letter)), 0);
    };
    std::vector<std::unique_ptr<Peer>> peers;
    for (const char letter : {'a', 'b', 'c', 'd'})
        peers.push_back(std::make_unique<Peer>([&](int) { write(letter, EACH); }));
    std::unique_ptr<Peer> victim;
    std::map<char, int> counts;
    s_signals = 0;
    SignalEvery(200);
    for (int total = 0; total < 4 * EACH;) {
        if (total % 50 == 0) victim = std::make_unique<Peer>([&](int) { write('v', -1); });
        const std::string message = Read();
        ASSERT_EQ(message, std::string(10'000, message.front()));
        ++counts[message.front()];
        total += message.front() != 'v';
    }
    SignalEvery(0);
    EXPECT_GT(s_signals, 0);
    counts.erase('v');
    EXPECT_EQ(counts, (std::map<char, int>{{'a', EACH}, {'b', EACH}, {'c', EACH}, {'d', EACH}}));
    for (const auto& peer : peers)
        EXPECT_EQ(peer->Wait(), 0);
}

TEST_F(SessionTest, ReaderThatDiesRaisesNoSignal) {
    s_signals = 0;
    const auto before = signal(SIGPIPE, Count);
    Peer reader([this](int told) {
        OpenReader();
        Peer::Tell(told);
        pause();
    });
    reader.Hear();
    Writer();
    reader.Kill();
    EXPECT_EQ(m_writer.Write("x"), Session::IPC_NO_READER);
    EXPECT_EQ(m_writer.Write(std::string(100'000, 'x')), Session::IPC_NO_READER);
    EXPECT_EQ(s_signals, 0);
    raise(SIGPIPE);
    EXPECT_EQ(s_signals, 1) << "the thread's mask has changed";
    EXPECT_EQ(signal(SIGPIPE, before), &Count);
}

TEST_F(SessionTest, WriterIsNotHeldUp) {
    OpenReader();
    Session& writer = Writer(20);
    int written = 0;
    while (writer.Write(std::string(10'000, 'w')) == 0)
        ++written;
    EXPECT_GE(written, 4);
    for (; written > 0; --written)
        EXPECT_EQ(Read(), std::string(10'000, 'w'));
    EXPECT_EQ(Read(0).substr(0, 2), "4:");  // the last one has been given up in the middle
    const KyFd stranger = WriteRaw(Path(NAME), "");
    ASSERT_EQ(flock(stranger.Get(), LOCK_EX), 0);
    EXPECT_EQ(writer.Write("x"), Session::IPC_TIMEOUT);
    ASSERT_EQ(flock(stranger.Get(), LOCK_UN), 0);
    EXPECT_EQ(writer.Write("again"), 0);
    EXPECT_EQ(Read(), "again");
}

TEST_F(SessionTest, TimeOutKeepsWhatHasArrivedAndAClosedWriterDoesNotWake) {
    OpenReader();
    const std::string frame = FrameOf(std::string(5000, 'm'));
    WriteRaw(Path(NAME), frame.substr(0, 3008));
    std::vector<int> bounds;
    s_poll = [&](pollfd* files, nfds_t count, int milliseconds) {
        bounds.push_back(milliseconds);
        return __real_poll(files, count, 0);
    };
    EXPECT_EQ(Read(60'000), "4:" + std::string(3000, 'm'));
    ASSERT_EQ(bounds.size(), 1U);
    EXPECT_TRUE(bounds[0] > 59'000 && bounds[0] <= 60'000) << bounds[0];
    WriteRaw(Path(NAME), frame.substr(3008) + FrameOf("surplus"));
    EXPECT_EQ(Read(), std::string(5000, 'm'));
    EXPECT_EQ(Read(0), "surplus");
}

TEST_F(SessionTest, FloodDoesNotHoldTheReader) {
    OpenReader();
    int polls = 0;
    s_poll = [&](pollfd* files, nfds_t count, int milliseconds) {
        if (++polls < 1'000'000) WriteRaw(Path(NAME), std::string(100, '\xF4'));
        return __real_poll(files, count, milliseconds);
    };
    EXPECT_EQ(Read(5), "4:");
    EXPECT_LT(polls, 1'000'000);
    s_poll = __real_poll;
    EXPECT_EQ(Writer().Write("next"), 0);
    EXPECT_EQ(Read(), "next");
}

}  // namespace
