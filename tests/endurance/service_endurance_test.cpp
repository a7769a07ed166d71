// The service, in a process of its own, under many requests and many sudden ends.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <random>

#include "client/TferSvcMsgClient.h"
#include "host/KyHostLog.h"
#include "messages/KyTferMsgFactory.h"
#include "messages/KyTferRespMsg.h"
#include "service/Process.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using Choice = std::mt19937::result_type;

constexpr char kDownloaded[] = "/var/local/tal/pldserver/3/tferFiles/f";
constexpr int kFileSize = 20'000;
constexpr int kCallers = 4;
constexpr int kFirst = 100;
constexpr int kRequests = 100'000;
constexpr int kKills = 200;

void Pause(Choice microseconds) {
    const timespec pause{0, static_cast<long>(microseconds) * 1000};
    nanosleep(&pause, nullptr);
}

/// What the callers have counted, in memory that all of them share with the test.
struct Tally {
    std::atomic<bool> stop{false};
    std::atomic<int> answered{0};
    std::atomic<int> wrong{0};  // an answer of another kind than the request's, or late news of a kill
};

KyTferMsg* Ask(TferSvcMsgClient& client, Choice choice) {
    if (choice == 0) return client.GetDevFile("f", "", kFileSize);
    if (choice == 1) return client.GetDevDirectory();
    if (choice == 2) return client.PutDevFile("/var/local/missing");
    if (choice > 3) return client.GetStatus();
    return client.DoRequest(KyTferMsgFactory::CreateMsg(KyTferMsg::TFER_MSG_CANCEL_TRANS));
}

/// Makes that many requests, unless told to stop.
int BeCaller(Tally& tally, int requests, Choice seed) {
    std::mt19937 random(seed);
    TferSvcMsgClient client;
    for (int i = 0; i < requests && !tally.stop; ++i) {
        const auto begin = std::chrono::steady_clock::now();
        // Many transactions at first: what they need at once, the service then has.
        const Choice choice = random() % (i < kFirst / kCallers ? 4 : 64);
        const auto type = choice < 4 ? KyTferMsg::TFER_MSG_RESP : KyTferMsg::TFER_MSG_STATUS;
        const std::unique_ptr<KyTferMsg> answer(Ask(client, choice));
        tally.wrong += (answer && answer->GetMsgType() != type) ||
                       std::chrono::steady_clock::now() - begin > kDeadline / 6;
        tally.answered += answer != nullptr;
        if (!answer) Pause(1000);  // leaves the machine to the next service
    }
    return 0;
}

/// What a process holds, by its directory in /proc; memory in KiB.
std::map<std::string, long> FiguresOf(const std::string& directory) {
    std::map<std::string, long> figures = {{"Threads:", 0}, {"VmSize:", 0}, {"RssAnon:", 0}};
    std::ifstream status(directory + "/status");
    for (std::string word; status >> word;)
        if (figures.count(word) == 1) status >> figures[word];
    figures["descriptors"] = static_cast<long>(EntriesOf(directory + "/fd").size());
    return figures;
}

/// A service with short sleeps over a device with one file, and its callers, the test's process among them.
class ServiceEndurance : public testing::Test {
protected:
    ServiceEndurance() {
        fs::create_directory(m_temp / "device");
        WriteFile(m_temp / "device/f", m_bytes);
        setenv("KY_IPC_DIR", m_fifos.c_str(), 1);
        ky_host::SetLogLevel(-1);
    }

    void Start() {
        WriteFile(m_log, "");
        // How many threads coincide is chance: no stack and no arena of malloc is to hide what else grows.
        m_service.emplace("prlimit --stack=1048576 " + std::string(kShortSleeps) +
                          "KY_LOG_LEVEL=5 MALLOC_ARENA_MAX=1 " TFERSVC_PROGRAM " --device-id 3 --simulate " +
                          (m_temp / "device") + " 2>>" + m_log);
    }

    void Await() const {
        const auto ready = [&] { return ReadFile(m_log).find("the engine is ready") != std::string::npos; };
        EXPECT_TRUE(WaitUntil(ready, 3 * kDeadline));
    }

    void StartCallers(int requests) {
        for (int i = 0; i < kCallers; ++i)
            m_callers.emplace_back([=, seed = m_random()] { return BeCaller(m_tally, requests, seed); });
    }

    /// The service must still fetch, once the callers' last transaction has ended.
    void ExpectCallersEndAndFetch() {
        for (Process& caller : m_callers)
            EXPECT_EQ(caller.End(0, 10 * kDeadline), 0) << "a caller hangs or has crashed";
        m_callers.clear();
        EXPECT_EQ(m_tally.wrong, 0);
        fs::remove(kDownloaded);
        const auto accepted = [&] {
            const std::unique_ptr<KyTferRespMsg> answer(m_client.GetDevFile("f", "", kFileSize));
            return answer && answer->GetResultStatus() == 1;
        };
        ASSERT_TRUE(WaitUntil(accepted) && WaitUntil([] { return fs::exists(kDownloaded); }));
        EXPECT_TRUE(ReadFile(kDownloaded) == m_bytes);
    }

    void ExpectEnd() {
        EXPECT_EQ(m_service->End(SIGTERM), 0);
        EXPECT_EQ(EntriesOf(m_fifos), std::multiset<std::string>{"tfersvc.lock"});
    }

    std::mt19937 m_random;  // its choices are the same in each run, the moments of the kills are not
    const TempDir m_temp;
    const std::string m_fifos = m_temp / "ipc", m_log = m_temp / "log";
    const std::string m_bytes = std::string(kFileSize / 2, 'a') + std::string(kFileSize / 2, 'z');
    TferSvcMsgClient m_client;
    std::optional<Process> m_service;
    std::list<Process> m_callers;
    Tally& m_tally =
        *new (mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Tally;
};

TEST_F(ServiceEndurance, KillsHinderNeitherCallersNorTheNextService) {
    StartCallers(INT_MAX);
    for (int i = 0; i < kKills && !HasFailure(); ++i) {
        Start();
        if (i % 8 != 0) Await();
        Pause(m_random() % 50'000);
        EXPECT_EQ(m_service->End(SIGKILL), -SIGKILL) << i;
    }
    m_tally.stop = true;
    Start();
    Await();
    ExpectCallersEndAndFetch();
    EXPECT_GT(m_tally.answered, kKills);
    ExpectEnd();
}

TEST_F(ServiceEndurance, ManyRequestsLeaveNothingBehind) {
    Start();
    Await();
    std::map<std::string, long> figures[2];
    for (const int i : {0, 1}) {
        StartCallers((i == 0 ? kFirst : kRequests - kFirst) / kCallers);
        ExpectCallersEndAndFetch();
        Pause(500'000);  // the last transaction's threads are just ending
        figures[i] = FiguresOf(m_service->Proc());
        std::cout << testing::PrintToString(figures[i]) << '\n';
    }
    // A thread that was never joined keeps its stack of 1 MiB; some stacks are kept for the next threads anyway.
    for (const auto& [what, bound] : {std::pair("Threads:", 1), std::pair("descriptors", 1),
                                      std::pair("VmSize:", 8192), std::pair("RssAnon:", 1000)})
        EXPECT_LT(figures[1][what] - figures[0][what], bound) << what;
    EXPECT_EQ(m_tally.answered, kRequests);
    ExpectEnd();
}

}  // namespace
