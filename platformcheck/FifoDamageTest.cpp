// KyIpcFifoSession: several writers, writers and readers that end, damaged and partial messages.
#include <fcntl.h>
#include <poll.h>

#include <memory>
#include <vector>

#include "platformcheck/FifoFixture.h"

using namespace ky_platform_check;

namespace {

using Session = KyIpcFifoSession;

constexpr int kWriters = 4;
constexpr int kMessages = 50;

class FifoDamage : public FifoTest {
protected:
    /// The bytes of a message in the FIFO.
    std::string RawBytes(const std::string& message) {
        Write(message);
        std::string bytes(60000, '\0');
        const ssize_t count = read(m_reader.ReadDescriptor(), bytes.data(), bytes.size());
        bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return bytes;
    }

    /// Opens the reader's FIFO for raw bytes. @return false if that is not possible without /proc
    bool OpenRaw() {
        const std::string link = "/proc/self/fd/" + std::to_string(m_reader.ReadDescriptor());
        m_raw = open(link.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        return m_raw >= 0;
    }

    void WriteRaw(const std::string& bytes) const {
        ASSERT_EQ(write(m_raw, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    void TearDown() override {
        if (m_raw >= 0) close(m_raw);
        FifoTest::TearDown();
    }

private:
    int m_raw = -1;
};

/// A message that depends on its writer and number.
std::string NumberedMessage(int writer, int number) {
    const int size = writer * 911 + number * 733 % 30000;
    return std::to_string(writer) + " " + std::to_string(number) + " " +
           Noise(static_cast<size_t>(size), static_cast<unsigned int>(number));
}

void WriteNumbered(const std::string& fifo, int writer) {
    FifoSession session;
    if (session.OpenCtrlFifo(fifo.c_str()) != Session::IPC_OK) return;
    for (int number = 0; number < kMessages; ++number) {
        const std::string message = NumberedMessage(writer, number);
        session.WriteCtrl(message.data(), static_cast<int>(message.size()));
    }
}

TEST_F(FifoDamage, MessagesOfSeveralWritersArriveWholeAndInOrder) {
    ASSERT_NO_FATAL_FAILURE(Open());
    std::vector<std::unique_ptr<Child>> writers;
    for (int writer = 0; writer < kWriters; ++writer)
        writers.push_back(std::make_unique<Child>([&, writer] { WriteNumbered(m_fifo, writer); }));
    int next[kWriters] = {};
    KyIpcMsgBuffer buffer(0);
    for (int count = 0; count < kWriters * kMessages; ++count) {
        ASSERT_EQ(m_reader.Read(&buffer, kFifoBound), Session::IPC_OK) << "of message " << count;
        const std::string message = Text(buffer);
        const int writer = message.empty() ? -1 : message[0] - '0';
        ASSERT_TRUE(writer >= 0 && writer < kWriters) << "message " << count << " has no writer";
        ASSERT_TRUE(Same(NumberedMessage(writer, next[writer]), message));
        ++next[writer];
    }
    EXPECT_TRUE(IsEmpty());
}

TEST_F(FifoDamage, KilledWriterLosesOnlyItsMessage) {
    ASSERT_NO_FATAL_FAILURE(Open());
    const std::string large = Noise(1000000, 5);
    Child killed([&] { Write(large); });
    pollfd fifo = {m_reader.ReadDescriptor(), POLLIN, 0};
    EXPECT_EQ(poll(&fifo, 1, kFifoBound), 1);
    Pause(20);  // the writer fills the FIFO and blocks
    killed.Kill();
    const Child next([&] { Write("next"); });
    EXPECT_TRUE(Reads("next"));
}

TEST_F(FifoDamage, MessagesCanContainFrames) {
    ASSERT_NO_FATAL_FAILURE(Open());
    std::string message = "message";
    for (int i = 0; i < 4; ++i) {
        message = RawBytes(message);
        EXPECT_NE(message, "");
        Write(message);
        ASSERT_TRUE(Reads(message));
    }
}

TEST_F(FifoDamage, GarbageAndTornFramesAreSkipped) {
    ASSERT_NO_FATAL_FAILURE(Open());
    if (!OpenRaw()) GTEST_SKIP() << "needs /proc to write into the FIFO";
    const std::string frame = RawBytes("0123456789");
    std::vector<std::string> damages = {"x", Noise(5000, 6), frame.substr(1)};
    for (size_t length = 1; length < frame.size(); ++length)
        damages.push_back(frame.substr(0, length));
    for (const std::string& damage : damages) {
        ASSERT_NO_FATAL_FAILURE(WriteRaw(damage));
        Write("next");
        ASSERT_TRUE(Reads("next")) << "after " << testing::PrintToString(damage.substr(0, 40));
    }
}

TEST_F(FifoDamage, ReadContinuesAPartialMessage) {
    ASSERT_NO_FATAL_FAILURE(Open());
    if (!OpenRaw()) GTEST_SKIP() << "needs /proc to write into the FIFO";
    const std::string message = Noise(20000, 7);
    const std::string frame = RawBytes(message);
    constexpr size_t kPart = 5000;
    constexpr size_t kMostOverhead = 100;  // of the frame, in bytes
    KyIpcMsgBuffer buffer(0);
    for (size_t from = 0; from < frame.size(); from += kPart) {
        ASSERT_NO_FATAL_FAILURE(WriteRaw(frame.substr(from, kPart)));
        if (from + kPart >= frame.size()) break;
        EXPECT_EQ(m_reader.Read(&buffer, 10), Session::IPC_TIMEOUT);
        const std::string seen = Text(buffer);
        EXPECT_TRUE(Same(message.substr(0, seen.size()), seen));
        EXPECT_GT(seen.size() + kMostOverhead, from + kPart)
            << "bytes have arrived that Read() does not return";
    }
    EXPECT_TRUE(Reads(message));
}

TEST_F(FifoDamage, LostReaderIsAStatusWithoutSigpipe) {
    ASSERT_NO_FATAL_FAILURE(Open());
    m_reader.Close();
    EXPECT_EQ(Write("lost"), Session::IPC_NO_READER);
}

}  // namespace
