// The built service under many requests, and killed many times.
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
#include <random>

#include "host/KyHostLog.h"
#include "messages/KyTferMsgFactory.h"
#include "messages/KyTferRespMsg.h"
#include "service/ServiceFixture.h"

namespace {

using Choice = std::mt19937::result_type;

constexpr int kFileSize = 20'000;
constexpr int kCallers = 4;
constexpr int kFirst = 100;
constexpr int kRequests = 100'000;
constexpr int kKills = 200;

void Pause(Choice microseconds) {
    const timespec pause{0, static_cast<long>(microseconds) * 1000};
    nanosleep(&pause, nullptr);
}

/// Counters in memory that the callers share with the test.
struct Tally {
    std::atomic<bool> stop{false};
    std::atomic<int> answered{0};
    std::atomic<int> wrong{0};  // answers of the wrong class, and callers that wait too long
};

KyTferMsg* Ask(TferSvcMsgClient& client, Choice choice) {
    if (choice == 0) return client.GetDevFile("f", "", kFileSize);
    if (choice == 1) return client.GetDevDirectory();
    if (choice == 2) return client.PutDevFile("/var/local/missing");
    if (choice > 3) return client.GetStatus();
    return client.DoRequest(KyTferMsgFactory::CreateMsg(KyTferMsg::TFER_MSG_CANCEL_TRANS));
}

/// Makes so many requests, or fewer if `stop` is set.
int BeCaller(Tally& tally, int requests, Choice seed) {
    std::mt19937 random(seed);
    TferSvcMsgClient client;
    for (int i = 0; i < requests && !tally.stop; ++i) {
        const auto begin = std::chrono::steady_clock::now();
        // Many transactions first, so that the first figures include the memory they need.
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

/// Resources of a process, from its directory in /proc. Memory is in KiB.
std::map<std::string, long> FiguresOf(const std::string& directory) {
    std::map<std::string, long> figures = {{"Threads:", 0}, {"VmSize:", 0}, {"RssAnon:", 0}};
    std::ifstream status(directory + "/status");
    for (std::string word; status >> word;)
        if (figures.count(word) == 1) status >> figures[word];
    figures["descriptors"] = static_cast<long>(EntriesOf(directory + "/fd").size());
    return figures;
}

class ServiceEndurance : public ServiceFixture {
protected:
    ServiceEndurance() {
        WriteFile(m_files + "f", m_bytes);
        ky_host::SetLogLevel(-1);
    }

    // The number of threads at one time is random. Small stacks and a single arena keep it from hiding a leak.
    void Start() {
        ServiceFixture::Start("", "prlimit --stack=1048576 " + std::string(kShortSleeps) +
                                      "KY_LOG_LEVEL=5 MALLOC_ARENA_MAX=1 ");
    }

    void AwaitReady() const { EXPECT_TRUE(AwaitLogged("the engine is ready")); }

    void StartCallers(int requests) {
        for (int i = 0; i < kCallers; ++i)
            m_callers.emplace_back([=, seed = m_random()] { return BeCaller(m_tally, requests, seed); });
    }

    /// Waits for the callers. The service must then still fetch.
    void ExpectCallersEndAndFetch() {
        for (Process& caller : m_callers)
            EXPECT_EQ(caller.End(0, 10 * kDeadline), 0) << "a caller hangs or has crashed";
        m_callers.clear();
        EXPECT_EQ(m_tally.wrong, 0);
        fs::remove(m_downloaded);
        const auto accepted = [&] {
            const std::unique_ptr<KyTferRespMsg> answer(m_client.GetDevFile("f", "", kFileSize));
            return answer && answer->GetResultStatus() == 1;
        };
        ASSERT_TRUE(WaitUntil(accepted) && WaitUntil([&] { return fs::exists(m_downloaded); }));
        EXPECT_TRUE(ReadFile(m_downloaded) == m_bytes);
    }

    std::mt19937 m_random;  // the same in each run; the times of the kills are not
    const std::string m_bytes = std::string(kFileSize / 2, 'a') + std::string(kFileSize / 2, 'z');
    const std::string m_downloaded = std::string(kDownload) + "f";
    std::list<Process> m_callers;
    Tally& m_tally =
        *new (mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Tally;
};

TEST_F(ServiceEndurance, KillsHinderNeitherCallersNorTheNextService) {
    StartCallers(INT_MAX);
    for (int i = 0; i < kKills && !HasFailure(); ++i) {
        Start();
        if (i % 8 != 0) AwaitReady();
        Pause(m_random() % 50'000);
        EXPECT_EQ(m_service->End(SIGKILL), -SIGKILL) << i;
    }
    m_tally.stop = true;
    Start();
    AwaitReady();
    ExpectCallersEndAndFetch();
    EXPECT_GT(m_tally.answered, kKills);
    ExpectEnd(SIGTERM, 0);
}

TEST_F(ServiceEndurance, ManyRequestsLeaveNothingBehind) {
    Start();
    AwaitReady();
    std::map<std::string, long> figures[2];
    for (const int i : {0, 1}) {
        StartCallers((i == 0 ? kFirst : kRequests - kFirst) / kCallers);
        ExpectCallersEndAndFetch();
        Pause(500'000);  // the last transaction's threads end meanwhile
        figures[i] = FiguresOf(m_service->Proc());
        std::cout << testing::PrintToString(figures[i]) << '\n';
    }
    // A thread that was never joined keeps its stack of 1 MiB; some stacks are kept for the next threads anyway.
    for (const auto& [what, bound] : {std::pair("Threads:", 1), std::pair("descriptors", 1),
                                      std::pair("VmSize:", 8192), std::pair("RssAnon:", 1000)})
        EXPECT_LT(figures[1][what] - figures[0][what], bound) << what;
    EXPECT_EQ(m_tally.answered, kRequests);
    ExpectEnd(SIGTERM, 0);
}

}  // namespace
