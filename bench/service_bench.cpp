// What the built service stands: status requests per second from several processes at a time, each with a session
// of its own for every request, and the memory that it has for itself before and after them.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "client/TferSvcMsgClient.h"
#include "host/KyFd.h"
#include "host/KyHostLog.h"
#include "messages/KyTferStatusMsg.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRequests = 100'000;
constexpr int kCallers[] = {1, 4, 16};
constexpr int kRequestsEachTime = kRequests / 3 + 16;  // at least, whatever the number of callers

void Require(bool good, const char* what) {
    if (!good) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

/// A directory for the FIFOs and the simulated device's files, removed with the object.
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

/// The service in a process of its own, killed with the object. It logs errors only.
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

    /// The memory that no other process shares with it, in KiB.
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

/// @return whether the service has given its record, which it has none of while it looks for its place
bool Ask(TferSvcMsgClient& client) {
    const std::unique_ptr<KyTferMsg> reply(client.GetStatus());
    const auto* const record = dynamic_cast<const KyTferStatusMsg*>(reply.get());
    return record != nullptr && record->GetStatus() == KyTferStatusMsg::TFER_STATUS_NONE;
}

void WaitUntilReady() {
    const auto end = Clock::now() + std::chrono::seconds(60);
    TferSvcMsgClient client;
    while (!Ask(client)) {
        if (Clock::now() > end) throw std::runtime_error("the service does not get ready");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

/// One of the processes that ask. It begins when the gate's other end is closed.
[[noreturn]] void BeCaller(const KyFd& gate, int requests) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    TferSvcMsgClient client;
    char byte = 0;
    bool good = read(gate.Get(), &byte, 1) == 0;
    for (int i = 0; i < requests && good; ++i)
        good = Ask(client);
    _exit(good ? 0 : 1);
}

/// Lets so many processes ask as fast as they can. @return requests per second, of all together
double Measure(int callers, int requests) {
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
        BeCaller(gate, requests / callers);
    }
    const auto begin = Clock::now();
    bar = KyFd();
    bool good = true;
    for (const pid_t process : processes) {
        int status = -1;
        good &= waitpid(process, &status, 0) == process && status == 0;
    }
    const std::chrono::duration<double> time = Clock::now() - begin;
    if (!good) throw std::runtime_error("a request has failed");
    const int answered = requests / callers * callers;
    return answered / time.count();
}

void Run() {
    const Directory directory;
    const Service service(directory.Path());
    std::printf("Waiting for the service, which looks for its place for eight seconds\n");
    std::fflush(nullptr);
    WaitUntilReady();
    Measure(1, 100);  // until then it has not touched all of its memory
    const long idle = service.PrivateMemory();
    std::printf("%8s %12s %22s\n", "callers", "requests/s", "private memory, KiB");
    std::printf("%8s %12s %22ld\n", "idle", "", idle);
    for (const int callers : kCallers) {
        const double perSecond = Measure(callers, kRequestsEachTime);
        std::printf("%8d %12.0f %22ld\n", callers, perSecond, service.PrivateMemory());
        std::fflush(nullptr);
    }
    std::printf("grown by %ld KiB in %d requests; wanted: 0\n", service.PrivateMemory() - idle, kRequests);
}

}  // namespace

int main() {
    if (getenv("KY_SANDBOX") == nullptr) {
        std::fprintf(stderr,
                     "This writes to /var/local and /var/tmp and runs in a sandbox only: ./dev bench\n");
        return 1;
    }
    ky_host::SetLogLevel(-1);
    try {
        Run();
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "service_bench: %s\n", failure.what());
        return 1;
    }
}
