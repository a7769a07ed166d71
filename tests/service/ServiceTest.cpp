// The transfer service as its callers see it, well-meaning and other ones.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <set>
#include <utility>

#include "client/TferSvcMsgClient.h"
#include "host/KyFd.h"
#include "host/KyIpcFrame.h"
#include "messages/KyTferMsgFactory.h"
#include "messages/KyTferRespMsg.h"
#include "messages/KyTferStatusMsg.h"
#include "platform/KyDlog.h"
#include "platform/KyIpcMsgBuffer.h"
#include "platform/KyIpcMsgUtil.h"
#include "service/TferService.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using Record = KyTferStatusMsg;

namespace {

constexpr char kLanding[] = "/var/local/tal/pldserver/3/";
constexpr char kDownload[] = "/var/local/tal/pldserver/3/tferFiles/";
constexpr char kCallers[] = "/var/local/tal/pldserver/callers/";  // where callers stage what they push
constexpr char kSource[] = "/var/local/tal/pldserver/callers/settings.cfg";
constexpr char kControl[] = "tfersvc-CtrlFifo";
// A sanitizer would otherwise insist on being the first library.
constexpr char kShortSleeps[] =
    "env ASAN_OPTIONS=$ASAN_OPTIONS:verify_asan_link_order=0 LD_PRELOAD=" SHORT_SLEEPS;
constexpr std::chrono::seconds kDeadline{30};  // only a failing test waits so long

/// A program in a process of its own. It is killed when the object goes, and when the test's process does.
class Process {
public:
    explicit Process(const std::string& command) {  // one for the shell
        const std::string line = "exec " + command;
        m_id = fork();
        if (m_id != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
        _exit(127);
    }
    Process(const Process&) = delete;
    ~Process() { End(SIGKILL); }

    /// Sends a signal, none with 0, and waits for the end.
    /// @return the exit status, the negative number of a signal, or -1000 if it does not end
    int End(int signal, std::chrono::seconds deadline = kDeadline) {
        int status = 0;
        if (m_id <= 0 || kill(m_id, signal) != 0) return -1000;
        if (!WaitUntil([&] { return waitpid(m_id, &status, WNOHANG) == m_id; }, deadline)) return -1000;
        m_id = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    /// What its descriptors are open on.
    std::multiset<std::string> Descriptors() const {
        std::multiset<std::string> open;
        std::error_code closed;
        for (const auto& descriptor : fs::directory_iterator("/proc/" + std::to_string(m_id) + "/fd"))
            open.insert(fs::read_symlink(descriptor, closed));
        return open;
    }

private:
    pid_t m_id;
};

/// A service over a simulated device 3 of some files, and the test's process as its caller. At the end SIGTERM
/// must end the service, with no descriptor lost and nothing but its lock file left beside the FIFOs.
class ServiceTest : public testing::Test {
protected:
    ServiceTest() {
        for (const std::string& directory : {m_files, std::string(kCallers)})
            fs::create_directories(directory);
        if (m_launcher) fs::create_directory("/var/tmp/dmp");
        setenv("KY_IPC_DIR", m_fifos.c_str(), 1);
    }

    ~ServiceTest() override {
        if (m_service) {
            ExpectNoDescriptorLost();
            EXPECT_EQ(m_service->End(SIGTERM), 0);
        }
        EXPECT_EQ(Entries(), std::set<std::string>{"tfersvc.lock"});
        if (HasFailure()) std::cerr << ReadFile(m_log);
        for (const std::string& directory : {std::string("/var/local/tal"), m_files, m_fifos})
            fs::remove_all(directory);
        unsetenv("KY_IPC_DIR");
    }

    /// Runs a service, as the argument of another command if there is one.
    std::unique_ptr<Process> Run(const std::string& options, const std::string& log, const std::string& by) {
        const std::string launcher = m_launcher ? m_launcher : "";
        return std::make_unique<Process>(by + " " + launcher +
                                         " " TFERSVC_PROGRAM " --device-id 3 --simulate " + m_files + " " +
                                         options + " >" + log + " 2>&1");
    }

    /// Starts the service in the place of the one before, with short sleeps, and waits until it is ready. It
    /// says so just before it is; until then there must be no request that could change its descriptors.
    void Start(const std::string& options = "") {
        WriteFile(m_log, "");
        m_service.reset();
        m_service = Run(options, m_log, kShortSleeps);
        ASSERT_TRUE(AwaitLogged("the engine is ready"));
        m_idleDescriptors = m_service->Descriptors();
        ASSERT_TRUE(WaitUntil([&] { return Status().GetStatus() == Record::TFER_STATUS_NONE; }, kDeadline));
    }

    /// The service must come to have nothing open that it had not before its first request. What it had may be
    /// closed: a sanitizer opens a pipe now and then.
    void ExpectNoDescriptorLost() const {
        std::multiset<std::string> open;
        const auto none = [&] {
            open = m_service->Descriptors();
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

    // The requests. An answer is "accepted: " or "refused: " with its text, or "null".
    std::string Fetch(const std::string& name, size_t size) {
        return Told(m_client.GetDevFile(name, "", static_cast<unsigned int>(size)));
    }
    std::string Push(const std::string& path) { return Told(m_client.PutDevFile(path)); }
    std::string Directory() { return Told(m_client.GetDevDirectory()); }

    Record Status() {
        const std::unique_ptr<KyTferMsg> reply(m_client.GetStatus());
        const auto* const record = dynamic_cast<const Record*>(reply.get());
        EXPECT_NE(record, nullptr) << "no answer to a status request";
        return record == nullptr ? Record(512) : *record;
    }

    /// Waits for the record to be complete, which it first is while the file still lies where it has landed.
    Record Await(bool inPlace = true) {
        Record record(512);
        const auto ended = [&] {
            record = Status();
            const auto status = record.GetStatus();
            return status == Record::TFER_STATUS_FAIL ||
                   (status == Record::TFER_STATUS_COMPLETE && (!inPlace || record.GetFilePath() != kLanding));
        };
        EXPECT_TRUE(WaitUntil(ended, kDeadline));
        EXPECT_EQ(record.GetStatus(), Record::TFER_STATUS_COMPLETE) << record.GetStatusMsg();
        return record;
    }

    /// How often the text stands in the service's log.
    int Logged(const std::string& text) const {
        const std::string log = ReadFile(m_log);
        int count = 0;
        for (size_t at = 0; (at = log.find(text, at)) != std::string::npos; at += text.size())
            ++count;
        return count;
    }

    bool AwaitLogged(const std::string& text) const {
        return WaitUntil([&] { return Logged(text) > 0; }, kDeadline);
    }

    /// What is in the directory of the FIFOs.
    std::set<std::string> Entries() const {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(m_fifos))
            names.insert(entry.path().filename());
        return names;
    }

    // A launcher puts the service under the restrictions of its unit, in the unit's directories.
    const char* const m_launcher = getenv("TFERSVC_LAUNCHER");
    const TempDir m_temp;
    const std::string m_files = m_launcher ? "/var/lib/tfersvc/device/" : m_temp / "device/";
    const std::string m_fifos = m_launcher ? "/run/ky-ipc/" : m_temp / "ipc/";
    const std::string m_log = m_temp / "log";
    const LogCapture m_clientLog{KY_DLOG_ERROR};
    TferSvcMsgClient m_client;
    std::unique_ptr<Process> m_service;

private:
    static std::string Told(KyTferRespMsg* response) {
        const std::unique_ptr<KyTferRespMsg> owned(response);
        if (response == nullptr) return "null";
        const int result = response->GetResultStatus();
        EXPECT_TRUE(result == TferService::kAccepted || result == TferService::kRefused) << result;
        return (result == TferService::kAccepted ? "accepted: " : "refused: ") + response->GetResultMsg();
    }

    std::multiset<std::string> m_idleDescriptors;
};

constexpr std::chrono::seconds kLongestEnd{3};  // two, and one for a machine that is busy
constexpr char kStarting[] = "refused: The transfer service is still looking for its place in the device";
constexpr char kBadName[] = "refused: The name of the file is not acceptable";
constexpr char kInProgress[] = "refused: Transaction already in progress";

std::string Retrieved(const std::string& name) {
    return "Retrieved file(" + name + ") successfully. and placed it in (" + kLanding + name + ")";
}

/// Compares a fetched file, and removes it, so that no later fetch can be taken for done.
void ExpectFetched(const std::string& name, const std::string& bytes) {
    EXPECT_TRUE(ReadFile(kDownload + name) == bytes) << name;
    EXPECT_FALSE(fs::exists(kLanding + name));
    fs::remove(kDownload + name);
}

// When a fetch looks complete, the device has still to be told so, and the echoes of that are yet to come.
// The text of an answer is still that of the transaction before.
TEST_F(ServiceTest, FetchesBackToBack) {
    const std::pair<std::string, std::string> files[] = {{"small.log", Put("small.log", 100)},
                                                         {"large.bin", Put("large.bin", 100'000)}};
    Start("--line-rate 11000000");  // its last byte comes some time before its end
    for (int i = 0; i < 200; ++i) {
        SCOPED_TRACE(i);
        const auto& [name, bytes] = files[i % 2];
        const auto& [last, lastBytes] = files[1 - i % 2];
        ASSERT_EQ(Fetch(name, bytes.size()), "accepted: " + (i == 0 ? "" : Retrieved(last)));
        if (i > 0) ExpectFetched(last, lastBytes);
        const Record record = Await(false);
        EXPECT_EQ(record.GetXferFileName(), name);
        EXPECT_EQ(record.GetBytesTransfered(), bytes.size());
    }
    Await();
    ExpectFetched(files[1].first, files[1].second);
}

// Nobody but the service opens the listing.
TEST_F(ServiceTest, ListingIsReadThoughTheNextRequestWaits) {
    for (int i = 0; i < 100; ++i)
        Put("file-" + std::to_string(i), 10);
    Start("--line-rate 1000");
    const KyFd watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_GE(inotify_add_watch(watch.Get(), kDownload, IN_OPEN), 0);
    ASSERT_EQ(Directory(), "accepted: Directory listing has been requested");
    ASSERT_TRUE(AwaitLogged("request file(listing.txt) from pldproxy"));
    ASSERT_EQ(Fetch("file-7", 10), "accepted: " + Retrieved("listing.txt"));
    alignas(inotify_event) char bytes[sizeof(inotify_event) + NAME_MAX + 1];
    const auto opened = [&] {
        const auto* const event = reinterpret_cast<const inotify_event*>(bytes);
        return read(watch.Get(), bytes, sizeof bytes) > 0 && std::string(event->name) == "listing.txt";
    };
    EXPECT_TRUE(WaitUntil(opened, kDeadline)) << "the service has not read it";
    EXPECT_EQ(Await().GetXferFullFilePath(), std::string(kDownload) + "file-7");
}

TEST_F(ServiceTest, PushConsumesItsFile) {
    Start();
    const std::string bytes(30'000, 'p');
    WriteFile(kSource, bytes);
    ASSERT_EQ(Push(kSource), "accepted: In Progress");
    EXPECT_FALSE(fs::exists(kSource));
    const Record record = Await();
    EXPECT_EQ(record.GetOrigFileName(), "settings.cfg");
    EXPECT_TRUE(ReadFile(m_files + record.GetXferFileName()) == bytes);
}

TEST_F(ServiceTest, Refusals) {
    WriteFile(kSource, "s");
    m_service = Run("", m_log, "");
    ASSERT_TRUE(WaitUntil([&] { return Fetch("event.log", 1) == kStarting; }, kDeadline));
    EXPECT_EQ(Directory(), kStarting);
    EXPECT_EQ(Push(kSource), kStarting);
    EXPECT_EQ(Status().GetStatus(), Record::TFER_STATUS_FAIL);
    EXPECT_EQ(std::exchange(m_service, nullptr)->End(SIGTERM, kLongestEnd), 0);

    Start("--fault fetch=stuck");
    for (const char* name : {"", "a/b", "..", "../event.log"})
        EXPECT_EQ(Fetch(name, 1), kBadName) << name;
    for (const char* path : {"", "settings.cfg", "local/settings.cfg", "/var/local/", "/var/local/.."})
        EXPECT_EQ(Push(path), kBadName) << path;
    EXPECT_EQ(Fetch("event.log", 1), "accepted: ");
    EXPECT_EQ(Fetch("event.log", 1), kInProgress);
    EXPECT_EQ(Directory(), kInProgress);
    EXPECT_EQ(ReadFile(kSource), "s") << "a refused push leaves its file alone";
}

/// Whether one of several processes gets the replies to its own requests.
bool AskForStatus(int count, const std::string& nameInRecord) {
    TferSvcMsgClient client;
    for (int i = 0; i < count; ++i) {
        auto request = std::make_unique<Record>(512);
        const std::string number = std::to_string(getpid()) + "-" + std::to_string(i);
        const std::string context = number + std::string(10'000, static_cast<char>('a' + getpid() % 26));
        request->SetTransId(number);
        request->SetCallerContext(context);
        const std::unique_ptr<KyTferMsg> reply(client.DoRequest(request.release()));
        const auto* const record = dynamic_cast<const Record*>(reply.get());
        if (record == nullptr || record->GetTransId() != number || record->GetCallerContext() != context ||
            record->GetXferFileName() != nameInRecord)
            return false;
    }
    return true;
}

TEST_F(ServiceTest, EachOfSeveralProcessesGetsItsOwnReplies) {
    Start();
    const std::string name(5000, 'n');  // the device does not answer to it
    ASSERT_EQ(Fetch(name, 1), "accepted: ");
    pid_t processes[4];
    for (pid_t& process : processes) {
        process = fork();
        if (process == 0) _exit(AskForStatus(200, name) ? 0 : 1);
    }
    for (const pid_t process : processes) {
        int status = -1;
        waitpid(process, &status, 0);
        EXPECT_EQ(status, 0);
    }
}

TEST_F(ServiceTest, AKilledServiceHindersNeitherItsCallersNorTheNext) {
    const std::string bytes = Put("event.log", 100'000);
    Start("--fault fetch=stuck");
    ASSERT_EQ(Fetch("event.log", bytes.size()), "accepted: ");
    ASSERT_TRUE(AwaitLogged("request file(event.log) from pldproxy"));
    EXPECT_EQ(std::exchange(m_service, nullptr)->End(SIGKILL), -SIGKILL);
    EXPECT_EQ(Fetch("event.log", bytes.size()), "null");
    EXPECT_EQ(Entries(), (std::set<std::string>{kControl, "tfersvc.lock"}));

    Start();
    const auto second = Run("", m_temp / "second.log", kShortSleeps);
    EXPECT_EQ(second->End(0), 1);
    EXPECT_NE(ReadFile(m_temp / "second.log").find("another transfer service is running"), std::string::npos);
    ASSERT_EQ(Fetch("event.log", bytes.size()), "accepted: ");
    EXPECT_EQ(Await().GetXferFullFilePath(), std::string(kDownload) + "event.log");
    ExpectFetched("event.log", bytes);
}

TEST_F(ServiceTest, SignalsEndTheService) {
    const std::string bytes = Put("event.log", 300'000);
    const std::function<std::string()> directory = [&] { return Directory(); };
    const std::function<std::string()> fetch = [&] { return Fetch("event.log", bytes.size()); };
    const std::function<std::string()> push = [&] { return Push(kSource); };
    const struct {
        const char* options;
        std::function<std::string()> ask;
        const char* logged;  // once it is under way
        int signal = SIGTERM;
    } rows[] = {
        {"--fault fetch=stuck", fetch, "request file(event.log) from pldproxy"},
        {"--line-rate 100", fetch, "Looking for file(", SIGINT},
        {"--fault directory=silent", directory, "MonitorGetDirRequest"},
        {"--fault directory=stuck", directory, "request file(listing.txt)"},
        {"--fault push=stuck", push, "PLD Transfer Start"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.options << " " << row.logged);
        WriteFile(kSource, bytes);
        Start(row.options);
        EXPECT_EQ(row.ask().substr(0, 9), "accepted:");
        EXPECT_TRUE(AwaitLogged(row.logged));
        EXPECT_EQ(Status().GetStatus(), Record::TFER_STATUS_INPROGRESS);
        EXPECT_EQ(std::exchange(m_service, nullptr)->End(row.signal, kLongestEnd), 0);
        EXPECT_EQ(Entries(), std::set<std::string>{"tfersvc.lock"});
    }
}

using Writes = std::vector<std::string>;

std::string BytesOf(const KyIpcMsgBuffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.GetBuf()), static_cast<size_t>(buffer.GetLength())};
}

/// A request without content, for a reply on `fifo`.
std::string Request(KyTferMsg::TferMsgType type, const std::string& fifo, size_t contextSize = 7) {
    const std::unique_ptr<KyTferMsg> message(KyTferMsgFactory::CreateMsg(type));
    message->SetCallerContext(std::string(contextSize, 'c'));
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

TEST_F(ServiceTest, SurvivesHostileCallers) {
    Start();
    const std::string status = Request(KyTferMsg::TFER_MSG_STATUS, "nobody");
    const std::string mark(ky_frame::MARK, ky_frame::MARK + sizeof ky_frame::MARK);
    Writes torn, longFrames, damaged;
    for (size_t length = 1; length < Frame(status).size(); ++length)
        torn.push_back(Frame(status).substr(0, length));
    for (const int number : {-1, INT_MIN, INT_MAX, ky_frame::MOST_BODY, 7, 0}) {
        longFrames.push_back(mark + Integers({number}) + "body");
        damaged.push_back(Frame(Integers({KyTferMsg::TFER_MSG_STATUS, 0, number}) + "text"));
        damaged.push_back(Frame(Integers({number}) + status.substr(4)));
    }
    const std::string fetch = Request(KyTferMsg::TFER_MSG_GET_DEV_FILE, "nobody");
    for (size_t length = 0; length < fetch.size(); ++length)
        damaged.push_back(Frame(fetch.substr(0, length)));
    damaged.push_back(Frame(status + "x"));

    const std::string outside = m_temp / "outside";
    for (const std::string& fifo : {m_fifos + "deaf", outside})
        ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const KyFd victim(open(outside.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const KyFd deaf(open((m_fifos + "deaf").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_EQ(symlink(outside.c_str(), (m_fifos + "link").c_str()), 0);
    const auto reply = [](const std::string& fifo) -> Writes {
        return {Frame(Request(KyTferMsg::TFER_MSG_STATUS, fifo)),
                Frame(Request(KyTferMsg::TFER_MSG_CANCEL_TRANS, fifo, 100'000))};
    };
    constexpr char skipped[] = "of no whole message in tfersvc-CtrlFifo";
    const struct {
        const char* name;
        Writes writes;
        std::string logged;
        size_t count = 1;
    } rows[] = {
        {"nothing but noise", {Put("noise", 200'000)}, skipped},
        {"frames torn everywhere", torn, skipped},
        {"frames of up to 4 GiB", longFrames, skipped},
        {"silly texts, unknown types, a byte too many, cut off everywhere", damaged,
         "dropped an unknown or damaged message", damaged.size()},
        {"a reply", {Frame(Request(KyTferMsg::TFER_MSG_RESP, "x"))}, "dropped a reply that nobody asked for"},
        {"answer outside", reply("../outside"), "could not answer on (../outside), status 2"},
        {"answer to a link", reply("link"), "could not answer on (link), status 7"},
        {"answer to itself", reply(kControl), "could not answer on (tfersvc-CtrlFifo), status 7"},
        {"answer that is never read", reply("deaf"), "could not answer on (deaf), status 4"},
        // Each of these once held the loop for 50 ms: with so many of them nobody was served for 20 s.
        {"many such answers", Writes(400, reply("deaf").front()), "could not answer on (deaf), status 4",
         400},
    };
    const std::set<std::string> entries = Entries();
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
        ASSERT_EQ(Entries(), entries);
    }
    char byte = 0;
    EXPECT_LT(read(victim.Get(), &byte, 1), 1) << "a reply has left the directory";
    for (const char* name : {"deaf", "link"})
        EXPECT_TRUE(unlink((m_fifos + name).c_str()) == 0) << name;
}

}  // namespace
