// The load that the built service takes: status requests from several processes at once, each with a new session for
// every request. The counters show the service's private memory in KiB, and its growth since the start.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "client/TferSvcMsgClient.h"
#include "host/KyFd.h"
#include "messages/KyTferStatusMsg.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRequests = 34'000;  // of each benchmark; more than 100,000 of all three

void Require(bool good, const char* what) {
    if (!good) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

/// A directory for FIFOs and the simulated device's files; removed by the destructor.
class Directory {
public:
    Directory() {
        Require(mkdtemp(m_path) != nullptr, "mkdtemp");
        Require(setenv("KY_IPC_DIR", m_path, 1) == 0, "setenv");
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;
    ~Directory() { std::filesystem::remove_all(m_path); }

    const char* Path() const { return m_path; }

private:
    char m_path[32] = "/var/tmp/service-bench-XXXXXX";
};

/// The service in a process of its own; killed by the destructor. It logs errors only.
class Service {
public:
    explicit Service(const char* deviceFiles) : m_id(fork()) {
        Require(m_id >= 0, "fork");
        if (m_id != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        setenv("KY_LOG_LEVEL", "3", 1);
        execl(TFERSVC_PROGRAM, "tfersvc", "--device-id", "3", "--simulate", deviceFiles, nullptr);
        _exit(127);
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service() {
        kill(m_id, SIGKILL);
        waitpid(m_id, nullptr, 0);
    }

    /// Memory that the service shares with no other process, in KiB.
    long PrivateMemory() const {
        std::ifstream file("/proc/" + std::to_string(m_id) + "/smaps_rollup");
        long total = 0, number = 0;
        for (std::string word; file >> word;) {
            if (word.rfind("Private_", 0) == 0 && file >> number) total += number;
        }
        Require(total > 0, "smaps_rollup");
        return total;
    }

private:
    const pid_t m_id;
};

/// @return whether the service has replied with a record, which it does after the module search
bool Ask(TferSvcMsgClient& client) {
    const std::unique_ptr<KyTferMsg> reply(client.GetStatus());
    const auto* const record = dynamic_cast<const KyTferStatusMsg*>(reply.get());
    return record != nullptr && record->GetStatus() == KyTferStatusMsg::TFER_STATUS_NONE;
}

void WaitUntilReady() {
    const auto end = Clock::now() + std::chrono::seconds(60);
    TferSvcMsgClient client;
    while (!Ask(client)) {
        if (Clock::now() > end) throw std::runtime_error("the service does not become ready");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

/// A calling process. It starts when the other end of the gate is closed.
[[noreturn]] void BeCaller(const KyFd& gate, int requests) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    TferSvcMsgClient client;
    char byte = 0;
    bool good = read(gate.Get(), &byte, 1) == 0;
    for (int i = 0; i < requests && good; ++i)
        good = Ask(client);
    _exit(good ? 0 : 1);
}

/// Lets processes send requests as fast as possible, the same number each. @return seconds until the last has ended
double Measure(int callers, int requestsEach) {
    int ends[2];
    Require(pipe2(ends, O_CLOEXEC) == 0, "pipe");
    const KyFd gate(ends[0]);
    KyFd bar(ends[1]);
    std::vector<pid_t> processes;
    for (int i = 0; i < callers; ++i) {
        processes.push_back(fork());
        Require(processes.back() >= 0, "fork");
        if (processes.back() != 0) continue;
        bar = KyFd();
        BeCaller(gate, requestsEach);
    }
    const auto begin = Clock::now();
    bar = KyFd();
    bool good = true;
    for (const pid_t process : processes) {
        int status = -1;
        good &= waitpid(process, &status, 0) == process && status == 0;
    }
    if (!good) throw std::runtime_error("a request has failed");
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

/// The service, ready, and its memory then.
struct ReadyService {
    ReadyService() {
        WaitUntilReady();
        Measure(1, 100);  // the service uses some of its memory only now
        idleMemory = service.PrivateMemory();
    }

    Directory directory;
    Service service{directory.Path()};
    long idleMemory = 0;
};

// The argument is the number of callers.
void StatusRequests(benchmark::State& state) {
    static const ReadyService s_ready;
    const auto callers = static_cast<int>(state.range(0));
    const int requestsEach = kRequests / callers;
    for ([[maybe_unused]] auto iteration : state)
        state.SetIterationTime(Measure(callers, requestsEach));
    state.SetItemsProcessed(static_cast<int64_t>(requestsEach) * callers);
    const long memory = s_ready.service.PrivateMemory();
    state.counters["private_KiB"] = static_cast<double>(memory);
    state.counters["grown_KiB"] = static_cast<double>(memory - s_ready.idleMemory);
}
BENCHMARK(StatusRequests)
    ->ArgName("callers")
    ->Arg(1)
    ->Arg(4)
    ->Arg(16)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

}  // namespace
