// One status round trip with the transfer service: through TferSvcMsgClient, with a new session for each, as every
// caller has it; over two bare FIFOs with the same system calls and no library; and, if built with sd-bus, as a
// D-Bus method call through a dbus-daemon of its own, over a connection that stays open. All carry the same texts.
// The argument is the number of processors that both sides share. The repetitions take turns.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#ifdef KY_BENCH_SDBUS
#include <systemd/sd-bus.h>
#endif

#include "bench/Latency.h"
#include "client/TferSvcMsgClient.h"
#include "host/KyFd.h"
#include "messages/KyTferMsgFactory.h"
#include "messages/KyTferStatusMsg.h"
#include "platform/KyIpcFifoSession.h"
#include "platform/KyIpcMsgBuffer.h"

namespace {

constexpr int kRoundTrips = 2000;
constexpr char kName[] = "event-log-2024-03-15.csv";
constexpr char kPath[] = "/var/local/tal/pldserver/17/tferFiles/";
constexpr char kText[] = "Get Dev File Complete";
constexpr size_t kBareRequest = 85;  // bytes, as many as the library sends and receives
constexpr size_t kBareReply = 164;

void Require(bool good, const char* what) {
    if (!good) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

/// Runs `body` and prints its failure. @return the exit status
int Guarded(const std::function<void()>& body) {
    try {
        body();
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "ipc_bench: %s\n", failure.what());
        return 1;
    }
}

void PinTo(int processor, pid_t process = 0) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<size_t>(processor), &set);
    Require(sched_setaffinity(process, sizeof set, &set) == 0, "sched_setaffinity");
}

/// A process of the benchmark; killed by the destructor.
class Child {
public:
    /// Returns after the body has called its argument, or has executed another program.
    explicit Child(const std::function<void(const std::function<void()>& ready)>& body) {
        int ends[2];
        Require(pipe2(ends, O_CLOEXEC) == 0, "pipe");
        const KyFd hear(ends[0]);
        KyFd tell(ends[1]);
        m_process = fork();
        Require(m_process >= 0, "fork");
        if (m_process == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            std::_Exit(Guarded([&] { body([&] { tell = KyFd(); }); }));
        }
        tell = KyFd();
        char byte;
        (void)!read(hear.Get(), &byte, 1);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
    }

    pid_t Process() const { return m_process; }

private:
    pid_t m_process;
};

// The library.

void ServeLibrary(const std::function<void()>& ready) {
    KyIpcFifoSession control("service", KyIpcFifoSession::IPC_CLOSE_NO_CONFIRM);
    Require(control.OpenReadFifo("tfersvc-CtrlFifo", 0600) == 0, "control FIFO");
    ready();
    for (;;) {
        KyIpcMsgBuffer request(1024), reply(200);
        if (control.Read(&request, 1000) != 0) continue;
        const std::unique_ptr<KyTferMsg> message(KyTferMsgFactory::CreateMsgFromBuffer(&request));
        if (!message) continue;
        KyTferStatusMsg status(512);
        status.SetStatus(KyTferStatusMsg::TFER_STATUS_COMPLETE);
        status.SetOrigFileName(kName);
        status.SetXferFileName(kName);
        status.SetFilePath(kPath);
        status.SetStatusMsg(kText);
        status.Serialize(&reply);
        KyIpcFifoSession answer("service", KyIpcFifoSession::IPC_CLOSE_NO_CONFIRM);
        if (answer.OpenCtrlFifo(message->GetRespFifo().c_str()) == 0)
            answer.WriteCtrl(reinterpret_cast<const char*>(reply.GetBuf()), reply.GetLength());
    }
}

void AskLibrary() {
    const std::unique_ptr<KyTferMsg> reply(TferSvcMsgClient::GetInstance()->GetStatus());
    Require(reply != nullptr, "GetStatus");
}

// The same system calls in the same order, and nothing else.

class BareDirectory {
public:
    explicit BareDirectory(const char* path) : m_directory(open(path, O_PATH | O_DIRECTORY | O_CLOEXEC)) {
        struct stat found;
        Require(fstat(m_directory.Get(), &found) == 0, path);
    }

    KyFd Make(const char* name) const {
        struct stat found;
        Require(mkfifoat(m_directory.Get(), name, 0600) == 0, name);
        KyFd fifo(openat(m_directory.Get(), name, O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        Require(fstat(fifo.Get(), &found) == 0 && geteuid() == found.st_uid && fchmod(fifo.Get(), 0777) == 0,
                name);
        return fifo;
    }

    KyFd Open(const char* name) const {
        struct stat found;
        KyFd fifo(openat(m_directory.Get(), name, O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
        Require(fstat(fifo.Get(), &found) == 0, name);
        return fifo;
    }

    void Remove(const char* name) const {
        struct stat found;
        Require(fstatat(m_directory.Get(), name, &found, AT_SYMLINK_NOFOLLOW) == 0, name);
        Require(unlinkat(m_directory.Get(), name, 0) == 0, name);
    }

private:
    KyFd m_directory;
};

void BareWrite(const KyFd& fifo, size_t count) {
    static const char bytes[kBareReply] = {};
    sigset_t sigpipe, before;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    Require(flock(fifo.Get(), LOCK_EX | LOCK_NB) == 0, "flock");
    pthread_sigmask(SIG_BLOCK, &sigpipe, &before);
    Require(write(fifo.Get(), bytes, count) == static_cast<ssize_t>(count), "write");
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    flock(fifo.Get(), LOCK_UN);
}

void BareRead(const KyFd& fifo) {
    char bytes[4096];
    pollfd file = {fifo.Get(), POLLIN, 0};
    Require(poll(&file, 1, 60'000) == 1 && read(fifo.Get(), bytes, sizeof bytes) > 0, "read");
}

constexpr char kBareControl[] = "bare-CtrlFifo";
constexpr char kBareAnswer[] = "bare-ClntRxFifo";

void ServeBare(const std::string& path, const std::function<void()>& ready) {
    const KyFd control = BareDirectory(path.c_str()).Make(kBareControl);
    ready();
    for (;;) {
        pollfd file = {control.Get(), POLLIN, 0};
        if (poll(&file, 1, 1000) == 0) continue;
        BareRead(control);
        const BareDirectory directory(path.c_str());
        BareWrite(directory.Open(kBareAnswer), kBareReply);
    }
}

void AskBare(const std::string& path) {
    const BareDirectory directory(path.c_str());
    const KyFd answer = directory.Make(kBareAnswer);
    const KyFd control = directory.Open(kBareControl);
    BareWrite(control, kBareRequest);
    BareRead(answer);
    directory.Remove(kBareAnswer);
}

// D-Bus.

#ifdef KY_BENCH_SDBUS

constexpr char kService[] = "ky.Bench";

void RunDaemon(const std::string& directory, const std::function<void()>& ready) {
    const std::string config = directory + "/bus.conf";
    std::ofstream(config)
        << "<busconfig><type>session</type><listen>unix:path=" << directory
        << "/bus</listen><policy context=\"default\"><allow send_destination=\"*\" "
           "eavesdrop=\"true\"/><allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
    const std::string option = "--config-file=" + config;
    (void)ready;  // exec closes the pipe; the bus opens its socket a little later
    const KyFd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    dup2(null.Get(), STDERR_FILENO);  // the daemon warns of limits that it cannot raise
    execlp("dbus-daemon", "dbus-daemon", "--nofork", option.c_str(), static_cast<char*>(nullptr));
}

/// A connection to the daemon, tried for five seconds; null if there is none.
sd_bus* Connect(const std::string& directory) {
    const std::string address = "unix:path=" + directory + "/bus";
    for (int tries = 0; tries < 500; ++tries) {
        sd_bus* bus = nullptr;
        Require(sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, address.c_str()) >= 0 &&
                    sd_bus_set_bus_client(bus, 1) >= 0,
                "sd_bus_new");
        if (sd_bus_start(bus) >= 0) return bus;
        sd_bus_unref(bus);
        usleep(10'000);
    }
    return nullptr;
}

int AnswerCall(sd_bus_message* call, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(call, "uuussss", 2U, 300'000U, 300'000U, kName, kName, kPath, kText);
}

void ServeBus(const std::string& directory, const std::function<void()>& ready) {
    sd_bus* const bus = Connect(directory);
    Require(bus != nullptr && sd_bus_add_object(bus, nullptr, "/status", AnswerCall, nullptr) >= 0 &&
                sd_bus_request_name(bus, kService, 0) >= 0,
            "D-Bus service");
    ready();
    for (;;) {
        int done;
        while ((done = sd_bus_process(bus, nullptr)) > 0) {
        }
        Require(done == 0 && sd_bus_wait(bus, UINT64_MAX) >= 0, "D-Bus service");
    }
}

void AskBus(sd_bus* bus) {
    sd_bus_message* reply = nullptr;
    Require(sd_bus_call_method(bus, kService, "/status", kService, "GetStatus", nullptr, &reply, "") >= 0,
            "D-Bus call");
    uint32_t status, requested, transferred;
    const char *original, *name, *path, *text;
    Require(sd_bus_message_read(reply, "uuussss", &status, &requested, &transferred, &original, &name, &path,
                                &text) >= 0,
            "D-Bus reply");
    sd_bus_message_unref(reply);
}

bool HaveDaemon() {
    static const bool s_found = std::system("command -v dbus-daemon >/dev/null 2>&1") == 0;
    return s_found;
}

#endif

// The benchmarks.

/// A directory for FIFOs in memory, as /run is.
class Directory {
public:
    Directory() : m_path("/dev/shm/ky-ipc-bench-XXXXXX") {
        Require(mkdtemp(m_path.data()) != nullptr, "/dev/shm");
        setenv("KY_IPC_DIR", m_path.c_str(), 1);
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;
    ~Directory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    static const std::string& Path() {
        static const Directory s_directory;
        return s_directory.m_path;
    }

private:
    std::string m_path;
};

/// Pins this process to the first processor, and the peers to the last one of state.range(0).
void Pin(const benchmark::State& state, std::initializer_list<const Child*> peers) {
    PinTo(0);
    for (const Child* const peer : peers)
        PinTo(static_cast<int>(state.range(0)) - 1, peer->Process());
}

/// Measures one round trip. The ones before it warm the caches, because the repetition before was another way's.
template <typename Ask>
void MeasureRoundTrip(benchmark::State& state, Ask ask) {
    for (int i = 0; i < 5; ++i)
        ask();
    MeasureCall(state, ask);
}

void GetStatusOfClient(benchmark::State& state) {
    Directory::Path();
    static const Child s_service(ServeLibrary);
    Pin(state, {&s_service});
    MeasureRoundTrip(state, AskLibrary);
}

void GetStatusOverBareFifos(benchmark::State& state) {
    const std::string& directory = Directory::Path();
    static const Child s_service([&](const auto& ready) { ServeBare(directory, ready); });
    Pin(state, {&s_service});
    MeasureRoundTrip(state, [&] { AskBare(directory); });
}

void EachRoundTrip(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgName("processors")->Arg(1);
    if (std::thread::hardware_concurrency() > 1) benchmark->Arg(2);
    MeasureEachCall(benchmark, kRoundTrips);
}
BENCHMARK(GetStatusOfClient)->Apply(EachRoundTrip);
BENCHMARK(GetStatusOverBareFifos)->Apply(EachRoundTrip);

#ifdef KY_BENCH_SDBUS
void GetStatusOverSdBus(benchmark::State& state) {
    const std::string& directory = Directory::Path();
    if (!HaveDaemon()) return state.SkipWithError("dbus-daemon is not installed");
    static const Child s_daemon([&](const auto& ready) { RunDaemon(directory, ready); });
    static const Child s_service([&](const auto& ready) { ServeBus(directory, ready); });
    static sd_bus* const s_bus = Connect(directory);
    Require(s_bus != nullptr, "D-Bus connection");
    Pin(state, {&s_daemon, &s_service});
    MeasureRoundTrip(state, [] { AskBus(s_bus); });
}
BENCHMARK(GetStatusOverSdBus)->Apply(EachRoundTrip);
#endif

}  // namespace
