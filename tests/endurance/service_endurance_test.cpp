// The service, in a process of its own, under what it meets in years: many requests, and many sudden ends. The
// choices are random; KY_SEED repeats those of a run that has printed it.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "client/TferSvcMsgClient.h"
#include "endurance/Growth.h"
#include "host/KyHostLog.h"
#include "messages/KyTferMsgFactory.h"
#include "messages/KyTferRespMsg.h"
#include "messages/KyTferStatusMsg.h"
#include "support/Eventually.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Choice = std::mt19937::result_type;
using Entries = std::set<std::string>;

constexpr char kDownloaded[] = "/var/local/tal/pldserver/3/tferFiles/f";
constexpr int kFileSize = 20'000;
constexpr int kCallers = 4;
constexpr int kFirst = 100;
constexpr int kRequests = kSanitized ? 10'000 : 100'000;
constexpr int kKills = 200;
constexpr int kEndless = 1'000'000'000;
constexpr std::chrono::seconds kDeadline{100};  // only a failing test waits so long

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
    std::atomic<int> wrong{0};     // answers of another kind than the request's, and callers that crashed
    std::atomic<long> longestMs{0};
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

[[noreturn]] void BeCaller(Tally& tally, int requests, Choice seed) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
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
        const long took = MsSince(begin);
        for (long longest = tally.longestMs; took > longest;) {
            if (tally.longestMs.compare_exchange_weak(longest, took)) break;
        }
        ++tally.asked;
        tally.answered += answer != nullptr;
        if (!answer) Pause(1000);  // leaves the machine to the next service
    }
    _exit(0);
}

/// A service with short sleeps over a device with one file, and its callers, the test's process among them.
class ServiceEndurance : public testing::Test {
protected:
    ServiceEndurance() {
        std::cout << "KY_SEED=" << m_seed << std::endl;
        prctl(PR_SET_CHILD_SUBREAPER, 1);  // no process of the service's can get out of sight
        std::generate(m_bytes.begin(), m_bytes.end(), std::minstd_rand(1));
        fs::create_directory(m_temp / "device");
        WriteFile(m_temp / "device/f", m_bytes);
        setenv("KY_IPC_DIR", m_fifos.c_str(), 1);
        ky_host::SetLogLevel(-1);
    }

    ~ServiceEndurance() override {
        for (const pid_t child : m_callers)
            kill(child, SIGKILL);
        if (m_service > 0) EndService(SIGKILL);
        EXPECT_TRUE(CallersEnd()) << "a caller hangs";
        munmap(&m_tally, sizeof m_tally);
        EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD) << "a process is left";
        fs::remove_all("/var/local/tal");
    }

    static Choice Seed() {
        const char* const given = std::getenv("KY_SEED");
        return given != nullptr ? static_cast<Choice>(std::strtoul(given, nullptr, 10))
                                : std::random_device()();
    }

    void StartService() {
        const std::string device = m_temp / "device";
        const char* const options = std::getenv("ASAN_OPTIONS");
        WriteFile(m_log, "");
        m_service = fork();
        if (m_service != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(open(m_log.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC), STDERR_FILENO);
        setenv("KY_LOG_LEVEL", "5", 1);
        // A sanitizer would otherwise insist on being the first library.
        setenv("ASAN_OPTIONS", ((options ? options : "") + std::string(":verify_asan_link_order=0")).c_str(),
               1);
        setenv("LD_PRELOAD", SHORT_SLEEPS, 1);
        // How many threads coincide is chance: no stack and no arena of malloc is to hide what else grows.
        setenv("MALLOC_ARENA_MAX", "1", 1);
        const rlimit stack{1 << 20, 1 << 20};
        setrlimit(RLIMIT_STACK, &stack);
        execl(TFERSVC_PROGRAM, "tfersvc", "--device-id", "3", "--simulate", device.c_str(), nullptr);
        _exit(127);
    }

    /// Waits until it has found its place. @return how long it then was until it served
    long AwaitService() {
        const auto ready = [&] { return ReadFile(m_log).find("the engine is ready") != std::string::npos; };
        EXPECT_TRUE(WaitUntil(ready, kDeadline));
        const auto begin = Clock::now();
        const auto serves = [&] {
            const std::unique_ptr<KyTferMsg> answer(m_client.GetStatus());
            const auto* const record = dynamic_cast<const KyTferStatusMsg*>(answer.get());
            return record != nullptr &&
                   record->GetStatusMsg().find("looking for its place") == std::string::npos;
        };
        EXPECT_TRUE(WaitUntil(serves, kDeadline));
        return MsSince(begin);
    }

    /// @return the exit status, the negative number of a signal, or -1000 if it does not end
    int EndService(int signal) {
        int status = 0;
        kill(m_service, signal);
        const auto ended = [&] { return waitpid(m_service, &status, WNOHANG) == m_service; };
        if (!WaitUntil(ended, kDeadline)) return -1000;
        m_service = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    /// Starts callers that ask so often each, unless they are told to stop.
    void StartCallers(int requestsOfEach) {
        for (int i = 0; i < kCallers; ++i) {
            const Choice seed = m_random();
            m_callers.push_back(fork());
            if (m_callers.back() == 0) BeCaller(m_tally, requestsOfEach, seed);
        }
    }

    bool CallersEnd() {
        const auto ended = [this](pid_t caller) {
            int status = 0;
            if (waitpid(caller, &status, WNOHANG) != caller) return false;
            m_tally.wrong += status != 0;
            return true;
        };
        const auto none = [&] {
            m_callers.erase(std::remove_if(m_callers.begin(), m_callers.end(), ended), m_callers.end());
            return m_callers.empty();
        };
        return WaitUntil(none, 3 * kDeadline);
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

    Entries Left() const {
        Entries names;
        for (const auto& entry : fs::directory_iterator(m_fifos))
            names.insert(entry.path().filename());
        return names;
    }

    const Choice m_seed = Seed();
    std::mt19937 m_random{m_seed};
    const TempDir m_temp;
    const std::string m_fifos = m_temp / "ipc", m_log = m_temp / "log";
    std::string m_bytes = std::string(kFileSize, '\0');
    TferSvcMsgClient m_client;
    pid_t m_service = 0;
    std::vector<pid_t> m_callers;
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
        EXPECT_EQ(EndService(SIGKILL), -SIGKILL) << i;
    }
    m_tally.stop = true;
    EXPECT_TRUE(CallersEnd()) << "a caller hangs";
    std::cout << kKills << " kills: " << m_tally.asked << " requests, " << m_tally.answered << " answered, "
              << m_tally.deserted << " under way at a kill, the longest " << m_tally.longestMs
              << " ms; a service that is ready serves within " << longest << " ms\n";
    EXPECT_LT(longest, 1000);
    EXPECT_LT(m_tally.longestMs, 5000) << "a minute is the bound for a service that lives";
    EXPECT_GT(m_tally.answered, kKills);
    EXPECT_GT(m_tally.deserted, kKills / 10) << "the kills have hit nobody";
    EXPECT_EQ(m_tally.wrong, 0);
    EXPECT_EQ(Left(), (Entries{"tfersvc-CtrlFifo", "tfersvc.lock"}));
    StartService();
    AwaitService();
    ExpectFetch();
    EXPECT_EQ(EndService(SIGTERM), 0);
    EXPECT_EQ(Left(), Entries{"tfersvc.lock"});
}

TEST_F(ServiceEndurance, ManyRequestsLeaveNothingBehind) {
    StartService();
    AwaitService();
    const auto figures = [&] { return FiguresOf(std::to_string(m_service)); };
    Pause(50'000);  // the thread of its search is just ending
    const long threads = figures().threads;
    EXPECT_TRUE(kSanitized || figures().privateMemory <= 3 * 1024) << "too much for a service that is idle";
    const auto ask = [&](int requests) {
        StartCallers(requests / kCallers);
        EXPECT_TRUE(CallersEnd());
        ExpectFetch();
        EXPECT_TRUE(WaitUntil([&] { return figures().threads <= threads; })) << "a thread is left";
        return figures();
    };
    const Figures before = ask(kFirst);
    ExpectNoGrowth(before, ask(kRequests - kFirst));
    EXPECT_EQ(m_tally.answered, kRequests);
    EXPECT_EQ(m_tally.wrong, 0);
    EXPECT_EQ(EndService(SIGTERM), 0);
    EXPECT_EQ(Left(), Entries{"tfersvc.lock"});
}

}  // namespace
