// What strangers may write to the control FIFO. The service goes on as before, whatever it is.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <functional>
#include <random>

#include "ServiceTest.h"
#include "host/KyFd.h"
#include "host/KyIpcFrame.h"
#include "messages/KyTferMsgFactory.h"
#include "platform/KyIpcFifoSession.h"
#include "platform/KyIpcMsgBuffer.h"
#include "platform/KyIpcMsgUtil.h"

namespace fs = std::filesystem;

namespace {

std::string BytesOf(const KyIpcMsgBuffer& buffer) {
    return std::string(reinterpret_cast<const char*>(buffer.GetBuf()),
                       static_cast<size_t>(buffer.GetLength()));
}

/// A request without content, for a reply on `fifo`.
std::string Request(int type, const std::string& fifo, const std::string& context = "context") {
    const std::unique_ptr<KyTferMsg> message(
        KyTferMsgFactory::CreateMsg(static_cast<KyTferMsg::TferMsgType>(type)));
    message->SetTransId("17");
    message->SetCallerContext(context);
    message->SetRespFifo(fifo);
    KyIpcMsgBuffer buffer(0);
    message->Serialize(&buffer);
    return BytesOf(buffer);
}

std::string Frame(const std::string& body) {
    KyIpcMsgBuffer frame(0);
    EXPECT_EQ(ky_frame::Encode(body.data(), static_cast<int>(body.size()), frame), 0);
    return BytesOf(frame);
}

std::string Integers(const std::vector<int>& values) {
    KyIpcMsgBuffer buffer(0);
    for (const int value : values)
        KyIpcMsgUtil::PutInteger(&buffer, value);
    return BytesOf(buffer);
}

// Far more than a caller takes that does not read, and less than a writer waits who is not in a hurry.
constexpr std::chrono::seconds kLongestAnswer{5};

const std::vector<int> kRequests = {KyTferMsg::TFER_MSG_GET_DEV_FILE, KyTferMsg::TFER_MSG_PUT_DEV_FILE,
                                    KyTferMsg::TFER_MSG_GET_DEV_DIR, KyTferMsg::TFER_MSG_STATUS,
                                    KyTferMsg::TFER_MSG_CANCEL_TRANS};

class HostileCallersTest : public ServiceTest {
protected:
    HostileCallersTest() { Start(); }

    /// Writes bytes to the control FIFO as they are, apart from what others write.
    void Write(const std::string& bytes) const {
        const KyFd control(open(Path(kControl).c_str(), O_WRONLY | O_CLOEXEC));
        ASSERT_EQ(flock(control.Get(), LOCK_EX), 0);
        ASSERT_EQ(write(control.Get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    /// After `attack` the service must answer, and have lost and left nothing; it must have said at least
    /// `count` times what it has made of it.
    void ExpectServing(const std::function<void()>& attack, const std::string& logged, int count) {
        const std::set<std::string> entries = Entries();
        const int before = m_service->Logged(logged);
        attack();
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(Status().GetStatus(), Record::TFER_STATUS_NONE);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, kLongestAnswer);
        EXPECT_GE(m_service->Logged(logged) - before, count) << logged;
        ExpectNoDescriptorLost();
        EXPECT_EQ(Entries(), entries);
    }

    std::string Path(const std::string& name) const { return m_fifos + name; }
};

TEST_F(HostileCallersTest, Messages) {
    constexpr char skipped[] = "of no whole message in tfersvc-CtrlFifo";
    constexpr char damaged[] = "dropped an unknown or damaged message";
    constexpr char noRequest[] = "dropped a reply that nobody asked for";
    constexpr int status = KyTferMsg::TFER_MSG_STATUS;
    const std::string mark(ky_frame::MARK, ky_frame::MARK + sizeof ky_frame::MARK);
    int truncations = 0;
    for (const int type : kRequests)
        truncations += static_cast<int>(Request(type, "nobody").size());
    std::minstd_rand random(4711);
    const auto noise = [&](size_t size) {
        std::string bytes(size, '\0');
        for (char& byte : bytes)
            byte = static_cast<char>(random() >> 8);
        return bytes;
    };
    const struct {
        const char* name;
        std::function<void()> attack;
        const char* logged;
        int count;
    } rows[] = {
        {"nothing but noise", [&] { Write(noise(200'000)); }, skipped, 1},
        {"frames torn everywhere",
         [&] {
             const std::string frame = Frame(Request(status, "nobody"));
             for (size_t length = 1; length < frame.size(); ++length)
                 Write(frame.substr(0, length));
         },
         skipped, 1},
        {"frames of up to 4 GiB",
         [&] {
             for (const int length : {-1, INT_MIN, INT_MAX, ky_frame::MOST_BODY + 1, ky_frame::MOST_BODY})
                 Write(mark + Integers({length}) + "body");
         },
         skipped, 1},
        {"texts of up to 4 GiB",
         [&] {
             for (const int length : {-1, INT_MIN, INT_MAX, 5})
                 Write(Frame(Integers({status, 0, length}) + "text"));
         },
         damaged, 4},
        {"requests cut off everywhere",
         [&] {
             for (const int type : kRequests) {
                 const std::string body = Request(type, "nobody");
                 for (size_t length = 0; length < body.size(); ++length)
                     Write(Frame(body.substr(0, length)));
             }
         },
         damaged, truncations},
        {"requests with a byte too many",
         [&] {
             for (const int type : kRequests)
                 Write(Frame(Request(type, "nobody") + "x"));
         },
         damaged, static_cast<int>(kRequests.size())},
        {"requests full of noise",
         [&] {
             for (int i = 0; i < 600; ++i)
                 Write(Frame(Integers({1 + i % 6}) + noise(static_cast<size_t>(i % 100))));
         },
         damaged, 600},
        {"unknown types",
         [&] {
             for (const int type : {0, 7, 256, 261, INT_MAX, INT_MIN, -1})
                 Write(Frame(Integers({type}) + Request(status, "nobody").substr(4)));
         },
         damaged, 7},
        {"a reply", [&] { Write(Frame(Request(KyTferMsg::TFER_MSG_RESP, "nobody"))); }, noRequest, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ExpectServing(row.attack, row.logged, row.count);
        if (HasFatalFailure()) return;
    }
}

TEST_F(HostileCallersTest, PlacesForReplies) {
    WriteFile(Path("file"), "content");
    const std::string outside = m_temp / "outside";
    for (const std::string& fifo : {Path("deaf"), Path("locked"), Path("unread"), outside})
        ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    fs::create_symlink(outside, Path("link"));
    fs::create_directory(Path("directory"));
    fs::create_hard_link(Path(kControl), Path("second name"));
    const auto reader = [](const std::string& fifo) {
        return KyFd(open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    };
    const std::string moreThanAFifoHolds(100'000, 'c');
    const std::string longName(256, 'x');
    const KyFd victim = reader(outside);
    const KyFd deaf = reader(Path("deaf"));
    const KyFd locked = reader(Path("locked"));
    ASSERT_EQ(flock(locked.Get(), LOCK_EX), 0);
    const struct {
        const char* name;
        std::string fifo, logged;
    } rows[] = {
        {"none", "", "(), status 2"},
        {"the directory itself", ".", "(.), status 2"},
        {"the parent", "..", "(..), status 2"},
        {"by way of the parent", "../outside", "(../outside), status 2"},
        {"somewhere else", outside, "(" + outside + "), status 2"},
        {"a name too long", longName, "(" + longName + "), status 2"},
        {"the control FIFO", kControl, "(tfersvc-CtrlFifo), status 7"},
        {"the control FIFO under another name", "second name", "(second name), status 4"},
        {"the lock file", "tfersvc.lock", "(tfersvc.lock), status 7"},
        {"a file", "file", "(file), status 7"},
        {"a directory", "directory", "(directory), status 7"},
        {"a symbolic link to a FIFO", "link", "(link), status 7"},
        {"nowhere", "nowhere", "(nowhere), status 5"},
        {"a FIFO without a reader", "unread", "(unread), status 6"},
        {"a FIFO whose reader never reads", "deaf", "(deaf), status 4"},
        {"a FIFO that is locked", "locked", "(locked), status 4"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto ask = [&] {
            Write(Frame(Request(KyTferMsg::TFER_MSG_STATUS, row.fifo)));
            Write(Frame(Request(KyTferMsg::TFER_MSG_CANCEL_TRANS, row.fifo, moreThanAFifoHolds)));
        };
        ExpectServing(ask, "could not answer on " + row.logged, 1);
        if (HasFatalFailure()) return;
    }
    char byte = 0;
    EXPECT_LT(read(victim.Get(), &byte, 1), 1) << "a reply has left the directory";
    EXPECT_EQ(ReadFile(Path("file")), "content");
    EXPECT_EQ(ReadFile(Path("tfersvc.lock")), "");
    EXPECT_EQ(fs::read_symlink(Path("link")), outside);
    for (const char* name : {"deaf", "locked", "unread", "file", "link", "directory", "second name"})
        EXPECT_TRUE(fs::remove(Path(name))) << name;
}

}  // namespace
