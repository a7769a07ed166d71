// What becomes of the requests that the service takes.
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>

#include "ServiceTest.h"
#include "directory/KyBlankSeparatedListing.h"
#include "directory/KyTferDirectory.h"
#include "host/KyFd.h"

namespace fs = std::filesystem;

namespace {

constexpr char kBadName[] = "refused: The name of the file is not acceptable";
constexpr char kInProgress[] = "refused: Transaction already in progress";
constexpr char kListingRequested[] = "accepted: Directory listing has been requested";

class TransfersTest : public ServiceTest {
protected:
    struct Row {
        const char* name;
        std::function<std::string()> ask;
        std::string answer;
    };

    static void Expect(const std::vector<Row>& rows) {
        for (const Row& row : rows)
            EXPECT_EQ(row.ask(), row.answer) << row.name;
    }

    static std::string Retrieved(const std::string& name) {
        return "Retrieved file(" + name + ") successfully. and placed it in (" + kLanding + name + ")";
    }

    /// Compares a fetched file, and removes it, so that no later fetch can be taken for done.
    static void ExpectFetched(const std::string& name, const std::string& bytes) {
        EXPECT_TRUE(ReadFile(kDownload + name) == bytes) << name;
        EXPECT_FALSE(fs::exists(kLanding + name));
        fs::remove(kDownload + name);
    }

    /// Becomes readable when the download directory's listing has been opened, which only the service does.
    bool AwaitListingRead(const KyFd& watch) const {
        alignas(inotify_event) char bytes[sizeof(inotify_event) + NAME_MAX + 1];
        return WaitUntil(
            [&] {
                const auto* const event = reinterpret_cast<const inotify_event*>(bytes);
                return read(watch.Get(), bytes, sizeof bytes) > 0 &&
                       std::string(event->name) == "listing.txt";
            },
            kDeadline);
    }

    static KyFd WatchListing() {
        KyFd watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        EXPECT_GE(inotify_add_watch(watch.Get(), kDownload, IN_OPEN), 0);
        return watch;
    }
};

// When a fetch looks complete, the device has still to be told so, and the echoes of that are yet to come.
// The text of an answer is still that of the transaction before.
TEST_F(TransfersTest, FetchesBackToBack) {
    const std::map<std::string, std::string> files = {{"small.log", Put("small.log", 100)},
                                                      {"large.bin", Put("large.bin", 100'000)}};
    const struct {
        const char* name;
        int count;
        bool moved;
    } rows[] = {{"asked for when the last is complete", 200, false},
                {"asked for when the last has its place", 50, true}};
    Start({"--line-rate", "11000000"});  // its last byte comes some time before its end
    std::string last;
    for (const auto& row : rows) {
        for (int i = 0; i < row.count; ++i) {
            SCOPED_TRACE(testing::Message() << row.name << ", " << i);
            const auto& [name, bytes] = i % 2 == 0 ? *files.begin() : *files.rbegin();
            ASSERT_EQ(Fetch(name, bytes.size()), "accepted: " + (last.empty() ? "" : Retrieved(last)));
            if (!last.empty()) ExpectFetched(last, files.at(last));
            const Record record = row.moved ? AwaitEnd() : AwaitComplete();
            ASSERT_EQ(record.GetStatus(), Record::TFER_STATUS_COMPLETE) << record.GetStatusMsg();
            EXPECT_EQ(record.GetXferFileName(), name);
            EXPECT_EQ(record.GetBytesTransfered(), bytes.size());
            EXPECT_TRUE(!row.moved || record.GetXferFullFilePath() == kDownload + name);
            last = name;
        }
    }
    ExpectFetched(last, files.at(last));
}

TEST_F(TransfersTest, ListingIsFetchedAndRead) {
    Put("event.log", 20'480);
    Put("config.bin", 7);
    Start();
    const KyFd watch = WatchListing();
    ASSERT_EQ(Directory(), kListingRequested);
    const Record record = AwaitEnd();
    EXPECT_EQ(record.GetStatus(), Record::TFER_STATUS_COMPLETE) << record.GetStatusMsg();
    ASSERT_EQ(record.GetXferFullFilePath(), std::string(kDownload) + "listing.txt");
    EXPECT_TRUE(AwaitListingRead(watch)) << "the service has not read it";
    std::ifstream file(record.GetXferFullFilePath());
    KyTferDirectory listing;
    ASSERT_EQ(ky_directory::ReadBlankSeparatedListing(file, listing), 2U);
    EXPECT_EQ(listing.GetEntryList(0, 2)[0].GetXferFileName(), "config.bin");
    EXPECT_EQ(listing.GetEntryList(0, 2)[1].GetFileSizeInBytes(), 20'480U);
}

TEST_F(TransfersTest, ListingIsReadThoughTheNextRequestWaits) {
    for (int i = 0; i < 100; ++i)
        Put("file-" + std::to_string(i), 10);
    Start({"--line-rate", "1000"});
    const KyFd watch = WatchListing();
    ASSERT_EQ(Directory(), kListingRequested);
    ASSERT_TRUE(AwaitLogged("request file(listing.txt) from pldproxy"));
    ASSERT_EQ(Fetch("file-7", 10), "accepted: " + Retrieved("listing.txt"));
    EXPECT_TRUE(AwaitListingRead(watch)) << "the service has not read it";
    EXPECT_EQ(AwaitEnd().GetXferFullFilePath(), std::string(kDownload) + "file-7");
}

TEST_F(TransfersTest, PushConsumesItsFile) {
    Start();
    const std::string source = "/var/local/settings.cfg";
    const std::string bytes(30'000, 'p');
    WriteFile(source, bytes);
    ASSERT_EQ(Push(source), "accepted: In Progress");
    EXPECT_FALSE(fs::exists(source));
    const Record record = AwaitEnd();
    EXPECT_EQ(record.GetStatus(), Record::TFER_STATUS_COMPLETE) << record.GetStatusMsg();
    EXPECT_EQ(record.GetOrigFileName(), "settings.cfg");
    EXPECT_TRUE(ReadFile(m_files + record.GetXferFileName()) == bytes);
}

TEST_F(TransfersTest, Refusals) {
    const std::string source = "/var/local/settings.cfg";
    WriteFile(source, "s");
    const std::string longName(5000, 'n');  // the device does not answer to it
    const std::string starting = "refused: The transfer service is still looking for its place in the device";

    Launch({}, ServiceProcess::REAL);
    Expect({{"starting, fetch", [&] { return Fetch("event.log", 1); }, starting},
            {"starting, directory", [&] { return Directory(); }, starting},
            {"starting, push", [&] { return Push(source); }, starting},
            {"starting, cancel", [&] { return Cancel("1"); }, starting},
            {"starting, status", [&] { return "refused: " + Status().GetStatusMsg(); }, starting}});
    EXPECT_EQ(Status().GetStatus(), Record::TFER_STATUS_FAIL);

    Start();
    Expect({{"fetch of nothing", [&] { return Fetch("", 1); }, kBadName},
            {"fetch with a path", [&] { return Fetch("a/b", 1); }, kBadName},
            {"fetch of the parent", [&] { return Fetch("..", 1); }, kBadName},
            {"fetch from the parent", [&] { return Fetch("../event.log", 1); }, kBadName},
            {"push of nothing", [&] { return Push(""); }, kBadName},
            {"push of a name", [&] { return Push("settings.cfg"); }, kBadName},
            {"push of a relative path", [&] { return Push("local/settings.cfg"); }, kBadName},
            {"push of a directory", [&] { return Push("/var/local/"); }, kBadName},
            {"push of the parent", [&] { return Push("/var/local/.."); }, kBadName},
            {"cancel", [&] { return Cancel("1"); }, "accepted: "},
            {"fetch, at last", [&] { return Fetch(longName, 1); }, "accepted: "},
            {"fetch during a fetch", [&] { return Fetch("event.log", 1); }, kInProgress},
            {"directory during a fetch", [&] { return Directory(); }, kInProgress},
            {"cancel during a fetch", [&] { return Cancel("1").substr(0, 9); }, "accepted:"}});
    EXPECT_EQ(Status().GetXferFileName(), longName);
    EXPECT_EQ(Status().GetStatus(), Record::TFER_STATUS_INPROGRESS);
    EXPECT_EQ(ReadFile(source), "s") << "a refused push leaves its file alone";
    fs::remove(source);
}

/// The requests of one of several processes. @return how many replies were not those to its requests
int AskForStatus(int count) {
    TferSvcMsgClient client;
    int wrong = 0;
    for (int i = 0; i < count; ++i) {
        auto request = std::make_unique<Record>(512);
        const std::string number = std::to_string(getpid()) + "-" + std::to_string(i);
        const std::string context = number + std::string(10'000, static_cast<char>('a' + getpid() % 26));
        request->SetTransId(number);
        request->SetCallerContext(context);
        const std::unique_ptr<KyTferMsg> reply(client.DoRequest(request.release()));
        wrong += dynamic_cast<const Record*>(reply.get()) == nullptr || reply->GetTransId() != number ||
                 reply->GetCallerContext() != context;
    }
    return wrong;
}

TEST_F(TransfersTest, EachOfSeveralProcessesGetsItsOwnReplies) {
    Start();
    const std::set<std::string> entries = Entries();
    std::vector<pid_t> processes;
    for (int i = 0; i < 4; ++i) {
        processes.push_back(fork());
        if (processes.back() == 0) _exit(AskForStatus(200) == 0 ? 0 : 1);
    }
    for (const pid_t process : processes) {
        int status = -1;
        waitpid(process, &status, 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(Entries(), entries);
}

}  // namespace
