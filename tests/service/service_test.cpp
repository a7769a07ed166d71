// The transfer service as good and hostile callers see it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <iostream>
#include <memory>
#include <random>

#include "host/KyFd.h"
#include "messages/KyServiceContract.h"
#include "messages/KyTferGetDevFile.h"
#include "messages/KyTferMsgFactory.h"
#include "messages/KyTferRespMsg.h"
#include "messages/KyTferStatusMsg.h"
#include "platform/KyDlog.h"
#include "platform/KyIpcMsgUtil.h"
#include "service/ServiceFixture.h"
#include "support/LogCapture.h"
#include "support/Wire.h"

using Record = KyTferStatusMsg;

namespace {

constexpr char kCallers[] = "/var/local/tal/pldserver/callers/";  // callers stage files to push here
constexpr char kSource[] = "/var/local/tal/pldserver/callers/settings.cfg";

/// How often the text occurs in the bytes.
int Count(const std::string& bytes, const std::string& text) {
    int count = 0;
    for (size_t at = 0; (at = bytes.find(text, at)) != std::string::npos; at += text.size())
        ++count;
    return count;
}

/// At the end of each test, the service must have no descriptor more than before, and SIGTERM must end it.
class ServiceTest : public ServiceFixture {
protected:
    ServiceTest() { fs::create_directories(kCallers); }

    ~ServiceTest() override {
        if (m_service) {
            ExpectNoDescriptorLost();
            ExpectEnd(SIGTERM, 0);
        }
        if (HasFailure()) std::cerr << ReadFile(m_log);
        fs::remove_all("/var/local/tal");
    }

    /// Starts the service with short sleeps, and waits until it is ready. The log line comes just before that. No request
    /// may change the descriptors until then.
    void Start(const std::string& options = "") {
        ServiceFixture::Start(options, kShortSleeps);
        ASSERT_TRUE(AwaitLogged("the engine is ready"));
        m_idleDescriptors = Descriptors();
        ASSERT_TRUE(WaitUntil([&] { return Status().GetStatus() == Record::TFER_STATUS_NONE; }, kDeadline));
    }

    /// The files that the service has open.
    Names Descriptors() const {
        Names open;
        std::error_code closed;
        for (const auto& descriptor : fs::directory_iterator(m_service->Proc() + "/fd"))
            open.insert(fs::read_symlink(descriptor, closed));
        return open;
    }

    /// Waits until the service has only files open that it had open before the first request. It may have closed some: a
    /// sanitizer opens a pipe now and then.
    void ExpectNoDescriptorLost() const {
        Names open;
        const auto none = [&] {
            open = Descriptors();
            return std::includes(m_idleDescriptors.begin(), m_idleDescriptors.end(), open.begin(),
                                 open.end());
        };
        ASSERT_TRUE(WaitUntil(none, kDeadline)) << testing::PrintToString(open);
    }

    /// Puts a file on the device and returns its bytes.
    std::string Put(const std::string& name, size_t size) const {
        std::string bytes(size, '\0');
        std::generate(bytes.begin(), bytes.end(), std::minstd_rand(static_cast<unsigned int>(size)));
        WriteFile(m_files + name, bytes);
        return bytes;
    }

    // The requests. An answer is "accepted: " or "refused: " with its text.
    std::string Fetch(const std::string& name, size_t size) {
        return Told(m_client.GetDevFile(name, "", static_cast<unsigned int>(size)));
    }
    std::string Push(const std::string& path) { return Told(m_client.PutDevFile(path)); }
    /// A request of the type for the transaction `id`; a fetch is one of event.log.
    std::string Ask(KyTferMsg::TferMsgType type, const std::string& id, TferSvcMsgClient& client) {
        KyTferMsg* const request = KyTferMsgFactory::CreateMsg(type);
        request->SetTransId(id);
        if (auto* const fetch = dynamic_cast<KyTferGetDevFile*>(request)) fetch->SetXferFileName("event.log");
        return Told(dynamic_cast<KyTferRespMsg*>(client.DoRequest(request)));
    }
    std::string Cancel(const std::string& id) { return Ask(KyTferMsg::TFER_MSG_CANCEL_TRANS, id, m_client); }
    std::string Directory() { return Told(m_client.GetDevDirectory()); }

    /// The record, or a fresh one if the answer is not the request's own.
    Record Status(size_t contextSize = 10'000) {
        auto request = std::make_unique<Record>(512);
        const std::string id = std::to_string(++m_asked);
        const std::string context(contextSize, static_cast<char>('a' + m_asked % 26));
        request->SetTransId(id);
        request->SetSorServerId(static_cast<unsigned short>(m_asked));
        request->SetCallerContext(context);
        const std::unique_ptr<KyTferMsg> reply(m_client.DoRequest(request.release()));
        const auto* const record = dynamic_cast<const Record*>(reply.get());
        const bool own = record != nullptr && record->GetTransId() == id &&
                         record->GetSorServerId() == m_asked && record->GetCallerContext() == context;
        EXPECT_TRUE(own || contextSize > 65536);
        return own ? *record : Record(512);
    }

    /// Waits until the record is complete. It is complete before the file has been moved. @param inPlace  wait for the move
    Record Await(bool inPlace = true) {
        Record record(512);
        const auto complete = [&] {
            record = Status();
            return record.GetStatus() == Record::TFER_STATUS_COMPLETE &&
                   (!inPlace || record.GetFilePath() != kLanding);
        };
        EXPECT_TRUE(WaitUntil(complete, kDeadline)) << record.GetStatusMsg();
        return record;
    }

    /// How often the text occurs in the service's log.
    int Logged(const std::string& text) const { return Count(ReadFile(m_log), text); }

    /// Makes a FIFO for answers. @return its reading end
    KyFd MakeFifo(const std::string& name) const {
        EXPECT_EQ(mkfifo((m_fifos + name).c_str(), 0600), 0);
        return KyFd(open((m_fifos + name).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    }

    const LogCapture m_clientLog{KY_DLOG_ERROR};

private:
    static std::string Told(KyTferRespMsg* response) {
        const std::unique_ptr<KyTferRespMsg> owned(response);
        if (response == nullptr) return "null";
        return (response->GetResultStatus() == ky_service::kAccepted ? "accepted: " : "refused: ") +
               response->GetResultMsg();
    }

    Names m_idleDescriptors;
    int m_asked = 0;
};

constexpr char kStarting[] = "refused: The transfer service is still looking for its place in the device";
constexpr char kBadName[] = "refused: The name of the file is not acceptable";
constexpr char kInProgress[] = "refused: Transaction already in progress";
constexpr char kCancelled[] = "accepted: File transfer cancelled";
constexpr char kNothing[] = "refused: No transfer is in progress";
constexpr char kNotThat[] = "refused: That transfer is not in progress";

std::string Retrieved(const std::string& name) {
    return "Retrieved file(" + name + ") successfully. and placed it in (" + kLanding + name + ")";
}

/// Compares a fetched file, and removes it: a later fetch must bring it again.
void ExpectFetched(const std::pair<std::string, std::string>& file) {
    EXPECT_TRUE(ReadFile(kDownload + file.first) == file.second) << file.first;
    EXPECT_FALSE(fs::exists(kLanding + file.first));
    fs::remove(kDownload + file.first);
}

// The next request comes while the last worker still moves its file and tells the device. The text of an answer is that
// of the transaction before.
TEST_F(ServiceTest, FetchesBackToBack) {
    const std::pair<std::string, std::string> files[] = {{"small.log", Put("small.log", 100)},
                                                         {"large.bin", Put("large.bin", 100'000)}};
    Start("--line-rate 11000000");  // slow enough that a request comes before the end
    EXPECT_EQ(Fetch("absent", 7), "accepted: ");
    EXPECT_EQ(Cancel(""), kCancelled);  // requests no longer wait for its worker
    std::string told = "File transfer cancelled";
    for (int i = 0; i < 200; ++i) {
        const auto& [name, bytes] = files[i % 2];
        ASSERT_EQ(Fetch(name, bytes.size()), "accepted: " + told) << i;
        if (i > 0) ExpectFetched(files[1 - i % 2]);
        const Record record = Await(false);
        EXPECT_EQ(record.GetXferFileName(), name);
        EXPECT_EQ(record.GetBytesTransfered(), bytes.size());
        told = Retrieved(name);
    }
    Await();
    ExpectFetched(files[1]);
}

TEST_F(ServiceTest, ListingIsReadThoughTheNextRequestWaits) {
    for (int i = 0; i < 100; ++i)
        Put("file-" + std::to_string(i), 10);
    setenv("KY_LOG_LEVEL", "7", 1);
    Start("--line-rate 1000 --fault directory=late:20000");
    unsetenv("KY_LOG_LEVEL");
    ASSERT_EQ(Directory(), "accepted: Directory listing has been requested");
    ASSERT_EQ(Directory(), kInProgress);  // the service once lost the first listing here
    ASSERT_TRUE(AwaitLogged("request file(listing.txt) from pldproxy"));
    ASSERT_EQ(Fetch("file-7", 10), "accepted: " + Retrieved("listing.txt"));
    EXPECT_TRUE(AwaitLogged(" file-99 file-99 ")) << "the service has not read it";
    EXPECT_EQ(Await().GetXferFullFilePath(), std::string(kDownload) + "file-7");
}

TEST_F(ServiceTest, CancelEndsWhatItNamesAndNothingElse) {
    constexpr auto kFetch = KyTferMsg::TFER_MSG_GET_DEV_FILE;
    Put("event.log", 0);
    WriteFile(kSource, "s");
    Start("--fault fetch=stuck --fault push=stuck");
    EXPECT_EQ(Cancel(""), kNothing);
    EXPECT_EQ(Ask(kFetch, "mine", m_client), "accepted: ");
    ASSERT_TRUE(AwaitLogged("request file(event.log) from pldproxy"));
    EXPECT_EQ(Cancel("another's"), kNotThat);
    // Another process has a reply FIFO of its own, so its request can wait.
    Process waiting([this] {
        TferSvcMsgClient client;
        return Ask(kFetch, "waiting", client) == "refused: File transfer cancelled" ? 0 : 1;
    });
    EXPECT_TRUE(WaitUntil([this] { return Cancel("waiting") == kCancelled; }, kDeadline));
    EXPECT_EQ(waiting.End(0), 0);
    EXPECT_EQ(Status().GetStatus(), Record::TFER_STATUS_INPROGRESS);

    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Cancel("mine"), kCancelled);
    EXPECT_EQ(Status().GetStatus(), Record::TFER_STATUS_FAIL);
    EXPECT_EQ(Cancel("mine"), kNothing);
    EXPECT_EQ(Ask(kFetch, "mine again", m_client).substr(0, 9), "accepted:");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4)) << "waited for the worker";
    EXPECT_EQ(Cancel("mine"), kNotThat);
    EXPECT_EQ(Cancel(""), kCancelled);
    EXPECT_EQ(Push(kSource).substr(0, 9), "accepted:");
    EXPECT_EQ(Cancel(""), kCancelled);
}

TEST_F(ServiceTest, CancelOfOneOfTwoIsRefused) {
    Put("event.log", 1);
    WriteFile(kSource, "s");
    Start("--fault fetch=silent --fault push=stuck");
    EXPECT_EQ(Ask(KyTferMsg::TFER_MSG_GET_DEV_FILE, "mine", m_client), "accepted: ");
    EXPECT_EQ(Push(kSource).substr(0, 9), "accepted:");
    EXPECT_EQ(Cancel("mine"),
              "refused: Two transfers are in progress; only a cancel without identifier ends them");
    EXPECT_EQ(Cancel(""), kCancelled);
}

TEST_F(ServiceTest, Refusals) {
    WriteFile(kSource, "s");
    m_service = Run("", m_log, "");
    ASSERT_TRUE(WaitUntil([&] { return Fetch("event.log", 1) == kStarting; }, kDeadline));
    EXPECT_EQ(Directory(), kStarting);
    EXPECT_EQ(Push(kSource), kStarting);
    EXPECT_EQ(Status().GetStatus(), Record::TFER_STATUS_FAIL);
    ExpectEnd(SIGTERM, 0);

    Start("--fault fetch=stuck");
    for (const char* name : {"", "a/b", "..", "../event.log"})
        EXPECT_EQ(Fetch(name, 1), kBadName) << name;
    for (const char* path : {"", "settings.cfg", "local/settings.cfg", "/var/local/", "/var/local/.."})
        EXPECT_EQ(Push(path), kBadName) << path;
    EXPECT_EQ(Fetch("event.log", 1), "accepted: ");
    EXPECT_EQ(Fetch("event.log", 1), kInProgress);
    EXPECT_EQ(Directory(), kInProgress);
    EXPECT_EQ(ReadFile(kSource), "s") << "a refused push leaves its file alone";
    EXPECT_EQ(Run("", m_temp / "second.log", kShortSleeps)->End(0), 1);
    EXPECT_NE(ReadFile(m_temp / "second.log").find("another transfer service is running"), std::string::npos);
    m_service.reset();
    fs::remove_all("/var/tmp/dmp");
    Start("--usb");
    EXPECT_TRUE(fs::exists("/var/tmp/dmp/dmp_supported"));
    for (const char* pause : {"--poll-pause -1", "--poll-pause 1001"})
        EXPECT_EQ(Run(pause, m_temp / "second.log", "")->End(0), 2) << pause;
}

/// The next service starts even after SIGKILL.
TEST_F(ServiceTest, SignalsEndTheService) {
    const std::string bytes = Put("event.log", 300'000);
    enum Kind { FETCH, PUSH, DIRECTORY };
    const struct {
        const char* options;
        Kind kind;
        const char* logged;  // once it is under way
        int signal = SIGTERM;
    } rows[] = {
        {"--fault fetch=stuck", FETCH, "request file(event.log) from pldproxy"},
        {"--line-rate 100", FETCH, "Looking for file(", SIGINT},
        {"--fault directory=silent", DIRECTORY, "MonitorGetDirRequest"},
        {"--fault directory=stuck", DIRECTORY, "request file(listing.txt)"},
        {"--fault push=stuck", PUSH, "PLD Transfer Start"},
        {"--fault fetch=stuck", FETCH, "request file(event.log) from pldproxy", SIGKILL},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.options << " " << row.signal);
        WriteFile(kSource, bytes);
        Start(row.options);
        const std::string answer = row.kind == FETCH  ? Fetch("event.log", bytes.size())
                                   : row.kind == PUSH ? Push(kSource)
                                                      : Directory();
        EXPECT_EQ(answer.substr(0, 9), "accepted:");
        EXPECT_TRUE(AwaitLogged(row.logged));
        EXPECT_EQ(Status().GetStatus(), Record::TFER_STATUS_INPROGRESS);
        ExpectEnd(row.signal, row.signal == SIGKILL ? -SIGKILL : 0);
    }
    EXPECT_EQ(Fetch("event.log", 1), "null");
    Start();
    EXPECT_EQ(Fetch("event.log", bytes.size()), "accepted: ");
    Await();
    ExpectFetched({"event.log", bytes});
}

using Writes = std::vector<std::string>;

/// The frame of a request without content. The body is cut after `length` bytes.
std::string Request(KyTferMsg::TferMsgType type, const std::string& fifo, size_t contextSize = 7,
                    size_t length = std::string::npos) {
    const std::unique_ptr<KyTferMsg> message(KyTferMsgFactory::CreateMsg(type));
    message->SetCallerContext(std::string(contextSize, 'c'));
    message->SetRespFifo(fifo);
    return FrameOf(BytesOf(*message).substr(0, length));
}

TEST_F(ServiceTest, FewRequestsWaitAndTheEndIsToldToThem) {
    constexpr int kMost = 64;
    Put("event.log", 1);
    Start("--fault fetch=stuck");
    EXPECT_EQ(fs::status(m_fifos + kControl).permissions(), fs::perms(0660)) << "callers share its group";
    ASSERT_EQ(Fetch("event.log", 1), "accepted: ");
    ASSERT_TRUE(AwaitLogged("request file(event.log) from pldproxy"));
    std::string answers(60'000, '\0');
    {
        const KyFd fifo = MakeFifo("many");
        for (int i = 0; i < kMost + 2; ++i)
            WriteFile(m_fifos + kControl, Request(KyTferMsg::TFER_MSG_GET_DEV_DIR, "many"));
        Status();  // the service has read the requests before it
        EXPECT_EQ(m_service->End(SIGTERM), 0);
        answers.resize(
            static_cast<size_t>(std::max<ssize_t>(0, read(fifo.Get(), answers.data(), answers.size()))));
    }
    fs::remove(m_fifos + "many");
    m_service.reset();
    EXPECT_EQ(Count(answers, "Too many requests are waiting"), 2);
    EXPECT_EQ(Count(answers, "The transfer service is ending"), kMost);
}

TEST_F(ServiceTest, SurvivesHostileCallers) {
    Start();
    Writes damaged;
    // A status request with one number too many, a length without its text, and unknown types.
    constexpr int kStatus = KyTferMsg::TFER_MSG_STATUS;
    for (const auto& numbers : {std::vector<int>{kStatus, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
                                {kStatus, 0, INT_MAX},
                                {kStatus, 0, -1},
                                {7},
                                {0},
                                {-1}}) {
        KyIpcMsgBuffer body(0);
        for (const int number : numbers)
            KyIpcMsgUtil::PutInteger(&body, number);
        damaged.push_back(FrameOf(BytesOf(body)));
    }
    const auto fetch = [](size_t length) {
        return Request(KyTferMsg::TFER_MSG_GET_DEV_FILE, "nobody", 7, length);
    };
    for (size_t length = 0; fetch(length) != fetch(std::string::npos); ++length)
        damaged.push_back(fetch(length));

    const KyFd deaf = MakeFifo("deaf");
    const auto reply = [](const std::string& fifo) -> Writes {
        return {Request(KyTferMsg::TFER_MSG_STATUS, fifo),
                Request(KyTferMsg::TFER_MSG_CANCEL_TRANS, fifo, 100'000)};
    };
    const struct {
        const char* name;
        Writes writes;
        std::string logged;
        size_t count = 1;
    } rows[] = {
        {"nothing but noise", {Put("noise", 200'000)}, "of no whole message in tfersvc-CtrlFifo"},
        {"silly texts, unknown types, too long, cut off everywhere", damaged,
         "dropped an unknown or damaged message", damaged.size()},
        {"a reply", {Request(KyTferMsg::TFER_MSG_RESP, "x")}, "dropped a reply that nobody asked for"},
        {"answer outside", reply("../outside"), "could not answer on (../outside), status 2"},
        {"answer to itself", reply(kControl), "could not answer on (tfersvc-CtrlFifo), status 7"},
        {"answer that is never read", reply("deaf"), "could not answer on (deaf), status 4"},
        // Each of these once blocked the loop for 50 ms.
        {"many such answers", Writes(400, reply("deaf").front()), "could not answer on (deaf), status 4",
         400},
    };
    const Names entries = EntriesOf(m_fifos);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const int before = Logged(row.logged);
        for (const std::string& bytes : row.writes)
            WriteFile(m_fifos + kControl, bytes);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(Status().GetStatus(), Record::TFER_STATUS_NONE);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
        EXPECT_GE(static_cast<size_t>(Logged(row.logged) - before), row.count) << row.logged;
        ExpectNoDescriptorLost();
        ASSERT_EQ(EntriesOf(m_fifos), entries);
    }
    fs::remove(m_fifos + "deaf");
    const auto answered = [this] { return Status(200'000).GetCallerContext().size() == 200'000; };
    EXPECT_TRUE(WaitUntil(answered)) << "an answer that does not fit into the FIFO waits for its reader";

    // More requests than the service reads in a row, and none after them.
    constexpr int kMany = 100;
    const KyFd many = MakeFifo("many");
    std::string requests, answers;
    for (int i = 0; i < kMany; ++i)
        requests += Request(KyTferMsg::TFER_MSG_STATUS, "many");
    WriteFile(m_fifos + kControl, requests);
    EXPECT_TRUE(WaitUntil([&] {
        char bytes[4096];
        answers.append(bytes,
                       static_cast<size_t>(std::max<ssize_t>(0, read(many.Get(), bytes, sizeof bytes))));
        return Count(answers, "ccccccc") == kMany;
    })) << Count(answers, "ccccccc");
    fs::remove(m_fifos + "many");
}

}  // namespace
