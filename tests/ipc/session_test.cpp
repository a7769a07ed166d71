#include <sys/file.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "IpcTest.h"

extern "C" int __wrap_poll(pollfd* files, nfds_t count, int milliseconds);
extern "C" int __wrap_poll(pollfd* files, nfds_t count, int milliseconds) {
    return s_poll(files, count, milliseconds);
}

namespace {

constexpr char kName[] = "test-Fifo";

class SessionTest : public IpcTest {
protected:
    SessionTest() { EXPECT_EQ(m_reader.OpenReadFifo(kName, 0600), 0); }
};

TEST_F(SessionTest, DirectoryIsItsOwnAndClosedToStrangers) {
    fs::create_directory_symlink(m_directory, m_temp / "link");
    fs::create_directory(m_temp / "public");
    fs::permissions(m_temp / "public", fs::perms::all);
    const std::pair<const char*, int> rows[] = {
        {"link", Session::IPC_REFUSED}, {"public", Session::IPC_REFUSED}, {"missing", Session::IPC_NO_FIFO}};
    for (const auto& [directory, status] : rows) {
        setenv("KY_IPC_DIR", (m_temp / directory).c_str(), 1);
        Session session;
        EXPECT_EQ(session.OpenCtrlFifo(kName), status) << directory;
        EXPECT_EQ(session.OpenReadFifo(kName, 0600), status) << directory;
        EXPECT_EQ(ky_host::CreateIpcDirectory() != 0, status == Session::IPC_REFUSED) << directory;
    }
    EXPECT_EQ(fs::status(m_temp / "missing").permissions(), fs::perms(01770));
}

/// A caller once waited a minute for the answer of a service that had been killed.
TEST_F(SessionTest, ReadEndsWhenThePeerHasGone) {
    Session asker;
    ASSERT_EQ(asker.OpenReadFifo("answer", 0600), 0);
    ASSERT_EQ(asker.OpenCtrlFifo(kName), 0);
    KyIpcMsgBuffer buffer(200);
    EXPECT_EQ(asker.Read(&buffer, 1), Session::IPC_TIMEOUT);
    int polls = 0;
    s_poll = [&](pollfd* files, nfds_t count, int milliseconds) {
        if (++polls > 1) return __real_poll(files, count, milliseconds);
        EXPECT_EQ(__real_poll(files, count, 0), 0);
        WriteRaw(Path("answer"), FrameOf("last") + FrameOf("half").substr(0, 10));
        m_reader.Close();
        files[1].revents =
            POLLERR;  // the peer answers and ends after poll() has looked at the first descriptor
        return 1;
    };
    EXPECT_EQ(asker.Read(&buffer, 10'000), 0);
    EXPECT_EQ(BytesOf(buffer), "last");
    EXPECT_EQ(asker.Read(&buffer, 10'000), Session::IPC_NO_READER);
    EXPECT_EQ(buffer.GetLength(), 0);
}

/// Without its bound, the reader does not return.
TEST_F(SessionTest, FloodDoesNotHoldTheReader) {
    s_poll = [&](pollfd* files, nfds_t count, int milliseconds) {
        WriteRaw(Path(kName), std::string(100, '\xF4'));
        return __real_poll(files, count, milliseconds);
    };
    KyIpcMsgBuffer buffer(200);
    EXPECT_EQ(m_reader.Read(&buffer, 5), Session::IPC_TIMEOUT);
}

/// The lock of a writer that is stopped does not hold other writers for ever.
TEST_F(SessionTest, WriterWaitsForTheLockWithinItsBound) {
    const KyFd stopped(open(Path(kName).c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(stopped.Get(), LOCK_EX), 0);
    Session writer;
    ASSERT_EQ(writer.OpenCtrlFifo(kName), 0);
    writer.SetWriteBound(20);
    EXPECT_EQ(writer.WriteCtrl("x", 1), Session::IPC_TIMEOUT);
}

using Messages = std::vector<std::string>;

const std::string kMark(reinterpret_cast<const char*>(ky_frame::kMark), sizeof ky_frame::kMark);
const std::string kLead = kMark.substr(0, ky_frame::kLead);

/// The messages of a stream that comes in pieces of one size. The last element is the number of skipped bytes.
Messages Decode(const std::string& stream, size_t piece) {
    KyIpcFrameDecoder decoder;
    Messages messages;
    const auto* const bytes = reinterpret_cast<const unsigned char*>(stream.data());
    for (size_t taken = 0; taken < stream.size();) {
        taken += decoder.Feed(bytes + taken, std::min(piece, stream.size() - taken));
        if (decoder.IsWhole()) messages.push_back(BytesOf(decoder.Message()));
    }
    messages.push_back(std::to_string(decoder.TakeSkipped()));
    return messages;
}

TEST(Frames, ADamagedByteCostsOnlyItsFrame) {
    // The message contains marks and stuffing.
    const std::string frame = FrameOf("a" + kLead + '\0' + kMark + kMark + "b"), next = FrameOf("next");
    for (size_t place = 0; place < frame.size(); ++place)
        for (unsigned int change = 1; change < 256; ++change) {
            std::string bytes = frame;
            bytes[place] = static_cast<char>(bytes[place] ^ static_cast<char>(change));
            const Messages messages = Decode(bytes + next, 1 + change % 4);
            ASSERT_TRUE(messages.size() == 2 || messages.size() == 3) << place << ' ' << change;
            ASSERT_EQ(messages[messages.size() - 2], "next") << place << ' ' << change;
        }
}

TEST(Frames, OneByteMoreThanTheMostIsDamage) {
    const std::string most(ky_frame::kMaxBody, 'x');
    std::string frame = FrameOf(most);
    EXPECT_EQ(Decode(frame, 70'000), (Messages{most, "0"}));
    KyIpcMsgBuffer stuffed(0);
    const std::string marked = most.substr(kLead.size()) + kLead;  // stuffing adds one byte
    EXPECT_EQ(ky_frame::Encode(marked.data(), ky_frame::kMaxBody, stuffed), Session::IPC_TOO_LARGE);
    ++frame[sizeof ky_frame::kMark];
    frame.insert(frame.size() - 1, "x");
    EXPECT_EQ(Decode(frame + FrameOf("next"), 70'000), (Messages{"next", std::to_string(frame.size())}));
}

}  // namespace
