// The service, in a process of its own, under what it meets in years: many requests, and many sudden ends. The
// choices are random; KY_SEED repeats those of a run that has printed it.
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <list>
#include <memory>
#include <optional>
#include <random>

#include "client/TferSvcMsgClient.h"
#include "endurance/Growth.h"
#include "host/KyHostLog.h"
#include "messages/KyTferMsgFactory.h"
#include "messages/KyTferRespMsg.h"
#include "messages/KyTferStatusMsg.h"
#include "service/Process.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Choice = std::mt19937::result_type;
using Names = std::multiset<std::string>;

constexpr char kDownloaded[] = "/var/local/tal/pldserver/3/tferFiles/f";
constexpr int kFileSize = 20'000;
constexpr int kCallers = 4;
constexpr int kFirst = 100;
constexpr int kRequests = kSanitized ? 10'000 : 100'000;
constexpr int kKills = 200;
constexpr int kEndless = 1'000'000'000;

long MsSince(Clock::time_point begin) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
}

void Pause(Choice microseconds) {
    const timespec pause{0, static_cast<long>(microseconds) * 1000};
    nanosleep(&pause, nullptr);
}

/// What the callers have counted, in memory that all of them share with the test.
struct Tally {
    std::atomic<bool> stop{false};
    std::atomic<int> asked{0}, answered{0};
    std::atomic<int> deserted{0};  // waited for the answer of a service that was killed
    std::atomic<int> wrong{0};     // answers of another kind than the request's
    std::atomic<int> tookLong{0};
};

/// One request, of a kind that the choice gives. @return whether its answer, if there is one, belongs to the kind
bool Ask(TferSvcMsgClient& client, Choice choice, std::unique_ptr<KyTferMsg>& answer) {
    const auto cancel = [] { return KyTferMsgFactory::CreateMsg(KyTferMsg::TFER_MSG_CANCEL_TRANS); };
    answer.reset(choice == 0   ? client.GetDevFile("f", "", kFileSize)
                 : choice == 1 ? client.GetDevFile("../f", "", kFileSize)
                 : choice == 2 ? client.GetDevDirectory()
                 : choice == 3 ? client.PutDevFile("/var/local/missing")
                 : choice == 4 ? client.DoRequest(cancel())
                               : client.GetStatus());
    return !answer ||
           answer->GetMsgType() == (choice < 5 ? KyTferMsg::TFER_MSG_RESP : KyTferMsg::TFER_MSG_STATUS);
}

/// Asks so often, unless it is told to stop.
int BeCaller(Tally& tally, int requests, Choice seed) {
    const auto count = [](void* context, int, const char*, const char*, const char* text) {
        static_cast<Tally*>(context)->deserted += std::string(text).rfind("No response from server", 0) == 0;
    };
    ky_host::SetLogSink(count, &tally, 3);
    std::mt19937 random(seed);
    TferSvcMsgClient client;
    std::unique_ptr<KyTferMsg> answer;
    for (int i = 0; i < requests && !tally.stop; ++i) {
        const auto begin = Clock::now();
        // Many transactions at first: what they need at once, the service then has.
        tally.wrong += !Ask(client, random() % (i < kFirst / kCallers ? 5 : 64), answer);
        tally.tookLong += MsSince(begin) >= 5000;  // a minute is the bound for a service that lives
        ++tally.asked;
        tally.answered += answer != nullptr;
        if (!answer) Pause(1000);  // leaves the machine to the next service
    }
    return 0;
}

/// A service with short sleeps over a device with one file, and its callers, the test's process among them.
class ServiceEndurance : public testing::Test {
protected:
    ServiceEndurance() {
        std::cout << "KY_SEED=" << m_seed << std::endl;
        std::generate(m_bytes.begin(), m_bytes.end(), std::minstd_rand(1));
        fs::create_directory(m_temp / "device");
        WriteFile(m_temp / "device/f", m_bytes);
        setenv("KY_IPC_DIR", m_fifos.c_str(), 1);
        ky_host::SetLogLevel(-1);
    }

    ~ServiceEndurance() override {
        m_callers.clear();
        munmap(&m_tally, sizeof m_tally);
        fs::remove_all("/var/local/tal");
    }

    static Choice Seed() {
        const char* const given = std::getenv("KY_SEED");
        return given != nullptr ? static_cast<Choice>(std::strtoul(given, nullptr, 10))
                                : std::random_device()();
    }

    void StartService() {
        WriteFile(m_log, "");
        // How many threads coincide is chance: no stack and no arena of malloc is to hide what else grows.
        m_service.emplace("prlimit --stack=1048576 " + std::string(kShortSleeps) +
                          "KY_LOG_LEVEL=5 MALLOC_ARENA_MAX=1 " TFERSVC_PROGRAM " --device-id 3 --simulate " +
                          (m_temp / "device") + " 2>>" + m_log);
    }

    /// Waits until it has found its place. @return how long it then was until it served
    long AwaitService() {
        const auto ready = [&] { return ReadFile(m_log).find("the engine is ready") != std::string::npos; };
        EXPECT_TRUE(WaitUntil(ready, 3 * kDeadline));
        const auto begin = Clock::now();
        const auto serves = [&] {
            const std::unique_ptr<KyTferMsg> answer(m_client.GetStatus());
            const auto* const record = dynamic_cast<const KyTferStatusMsg*>(answer.get());
            return record != nullptr &&
                   record->GetStatusMsg().find("looking for its place") == std::string::npos;
        };
        EXPECT_TRUE(WaitUntil(serves, 3 * kDeadline));
        return MsSince(begin);
    }

    void StartCallers(int requestsOfEach) {
        for (int i = 0; i < kCallers; ++i)
            m_callers.emplace_back(
                [=, seed = m_random()] { return BeCaller(m_tally, requestsOfEach, seed); });
    }

    void ExpectCallersEnd() {
        for (Process& caller : m_callers)
            EXPECT_EQ(caller.End(0, 10 * kDeadline), 0) << "a caller hangs or has crashed";
        m_callers.clear();
    }

    void ExpectFetch() {
        fs::remove(kDownloaded);
        const auto accepted = [&] {  // once the others' last transaction has ended
            const std::unique_ptr<KyTferRespMsg> answer(m_client.GetDevFile("f", "", kFileSize));
            return answer && answer->GetResultStatus() == 1;
        };
        ASSERT_TRUE(WaitUntil(accepted) && WaitUntil([] { return fs::exists(kDownloaded); }));
        EXPECT_TRUE(ReadFile(kDownloaded) == m_bytes);
    }

    const Choice m_seed = Seed();
    std::mt19937 m_random{m_seed};
    const TempDir m_temp;
    const std::string m_fifos = m_temp / "ipc", m_log = m_temp / "log";
    std::string m_bytes = std::string(kFileSize, '\0');
    TferSvcMsgClient m_client;
    std::optional<Process> m_service;
    std::list<Process> m_callers;
    Tally& m_tally =
        *new (mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Tally;
};

TEST_F(ServiceEndurance, KillsHinderNeitherCallersNorTheNextService) {
    StartCallers(kEndless);
    long longest = 0;
    for (int i = 0; i < kKills && !HasFailure(); ++i) {
        StartService();
        const bool whileItStarts = i % 8 == 0;
        if (!whileItStarts) longest = std::max(longest, AwaitService());
        Pause(m_random() % (whileItStarts ? 100'000 : 30'000));
        EXPECT_EQ(m_service->End(SIGKILL), -SIGKILL) << i;
    }
    m_tally.stop = true;
    ExpectCallersEnd();
    std::cout << kKills << " kills: " << m_tally.asked << " requests, " << m_tally.answered << " answered, "
              << m_tally.deserted << " under way at a kill; a service that is ready serves within " << longest
              << " ms\n";
    EXPECT_LT(longest, 1000);
    EXPECT_EQ(m_tally.tookLong, 0);
    EXPECT_GT(m_tally.answered, kKills);
    EXPECT_GT(m_tally.deserted, kKills / 10) << "the kills have hit nobody";
    EXPECT_EQ(m_tally.wrong, 0);
    EXPECT_EQ(EntriesOf(m_fifos), (Names{"tfersvc-CtrlFifo", "tfersvc.lock"}));
    StartService();
    AwaitService();
    ExpectFetch();
    EXPECT_EQ(m_service->End(SIGTERM), 0);
    EXPECT_EQ(EntriesOf(m_fifos), Names{"tfersvc.lock"});
}

TEST_F(ServiceEndurance, ManyRequestsLeaveNothingBehind) {
    StartService();
    AwaitService();
    const auto figures = [&] { return FiguresOf(m_service->Proc()); };
    Pause(50'000);  // the thread of its search is just ending
    const long threads = figures().threads;
    EXPECT_TRUE(kSanitized || figures().privateMemory <= 3072) << "too much for a service that is idle";
    const auto ask = [&](int requests) {
        StartCallers(requests / kCallers);
        ExpectCallersEnd();
        ExpectFetch();
        EXPECT_TRUE(WaitUntil([&] { return figures().threads <= threads; })) << "a thread is left";
        return figures();
    };
    const Figures before = ask(kFirst);
    ExpectNoGrowth(before, ask(kRequests - kFirst));
    EXPECT_EQ(m_tally.answered, kRequests);
    EXPECT_EQ(m_tally.wrong, 0);
    EXPECT_EQ(m_service->End(SIGTERM), 0);
    EXPECT_EQ(EntriesOf(m_fifos), Names{"tfersvc.lock"});
}

}  // namespace
