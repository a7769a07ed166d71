// What the engine costs beside what it does: reading its status while a monitor polls, and a fetch beside the
// same file moved by hand.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "RelayProxy.h"
#include "Samples.h"
#include "engine/KyTferClient.h"
#include "host/KyHostLog.h"
#include "simdevice/SimDevice.h"
#include "simdevice/SimFd.h"

namespace {

using Clock = Samples::Clock;

constexpr unsigned short kDeviceId = 3;
constexpr int kFileSize = 307200;
constexpr char kFileName[] = "event.log";
constexpr char kDeviceDirectory[] = "/var/tmp/device";
constexpr char kLandingPath[] = "/var/local/tal/pldserver/3/event.log";
constexpr char kFinalPath[] = "/var/local/tal/pldserver/3/tferFiles/event.log";

void Sleep(std::chrono::microseconds duration) {
    const timespec pause{0, static_cast<long>(std::chrono::nanoseconds(duration).count())};
    nanosleep(&pause, nullptr);
}

/// Copies a file as the simulated device delivers one: in chunks of 64 KiB, read and written at once.
bool CopyInChunks(const std::string& from, const std::string& to) {
    static std::array<char, 65536> chunk;
    const SimFd source(open(from.c_str(), O_RDONLY | O_CLOEXEC));
    SimFd target(open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    ssize_t count = 0;
    off_t offset = 0;
    while ((count = pread(source.Get(), chunk.data(), chunk.size(), offset)) > 0) {
        if (write(target.Get(), chunk.data(), static_cast<std::size_t>(count)) != count) return false;
        offset += count;
    }
    return count == 0 && target.Close();
}

/// An engine that is bound to a simulated device without an index for the card, so that there is no search.
/// `onChange` sees the device's changes before the engine, `onWrite` the engine's string writes before the
/// device.
class Rig {
public:
    Rig(const SimDevice::Listener& onChange, RelayProxy::Observer onWrite)
        : m_device(SimDeviceBuilder(kDeviceDirectory).DeviceId(kDeviceId).Build()),
          m_proxy(*m_device, std::move(onWrite)) {
        m_device->FailPoint(SimAccess::REPORT_ID, sim_point::MON_AGENT_INFO, 1);
        m_device->SetListener([this, onChange](const KyValChgInfo& change) {
            onChange(change);
            m_engine.DataChange(change);
        });
        m_bound = m_engine.Init(kDeviceId, &m_proxy) == 0;
        WaitIdle();
    }
    ~Rig() {
        m_device->Abort();
        m_device->SetListener(nullptr);
    }
    Rig(const Rig&) = delete;
    Rig& operator=(const Rig&) = delete;

    bool Bound() const { return m_bound; }
    SimDevice& Device() { return *m_device; }
    KyTferClient& Engine() { return m_engine; }
    bool Request() {
        return m_engine.GetFileFromDevRequest(kFileName, kFileSize).GetStatus() ==
               KyTferStatusMsg::TFER_STATUS_INPROGRESS;
    }
    void WaitIdle() {
        while (m_engine.WorkerRunning())
            Sleep(std::chrono::milliseconds(1));
        m_device->WaitIdle(10000);
    }

private:
    std::unique_ptr<SimDevice> m_device;
    RelayProxy m_proxy;
    KyTferClient m_engine;
    bool m_bound = false;
};

/// What the engine's monitor and GetStatus do, with a plain mutex between them.
class BareLoop {
public:
    explicit BareLoop(const KyTferStatusMsg& record) : m_record(record), m_thread([this] { Poll(); }) {}
    ~BareLoop() {
        m_stop = true;
        m_thread.join();
    }
    BareLoop(const BareLoop&) = delete;
    BareLoop& operator=(const BareLoop&) = delete;

    KyTferStatusMsg Read() {
        KyTferStatusMsg result(512);
        pthread_mutex_lock(&m_mutex);
        result = m_record;
        pthread_mutex_unlock(&m_mutex);
        return result;
    }

private:
    void Poll() {
        while (!m_stop) {
            struct stat info = {};
            pthread_mutex_lock(&m_mutex);
            benchmark::DoNotOptimize(stat(kLandingPath, &info));
            pthread_mutex_unlock(&m_mutex);
        }
    }

    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    const KyTferStatusMsg m_record;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

constexpr int kReads = 20000;
constexpr std::chrono::seconds kLongestMeasuring{10};

/// Measures reads one after the other, with a pause between two of them.
template <typename Read>
Samples MeasureReads(std::chrono::microseconds pause, Read read) {
    Samples samples;
    samples.Reserve(kReads);
    const auto end = Clock::now() + kLongestMeasuring;
    auto begin = Clock::now();
    for (int i = 0; i < kReads && begin < end; ++i) {
        if (pause.count() > 0) Sleep(pause);
        begin = Clock::now();
        benchmark::DoNotOptimize(read());
        samples.Add(Clock::now() - begin);
    }
    return samples;
}

void CountReads(benchmark::State& state, const std::string& prefix, const Samples& samples) {
    state.counters[prefix + "p50_us"] = samples.Quantile(0.5);
    state.counters[prefix + "p99_us"] = samples.Quantile(0.99);
    state.counters[prefix + "p999_us"] = samples.Quantile(0.999);
    state.counters[prefix + "max_us"] = samples.Quantile(1);
}

void GetStatusWhilePolling(benchmark::State& state) {
    const std::chrono::microseconds pause(state.range(0));
    for ([[maybe_unused]] auto iteration : state) {
        Samples gated;
        KyTferStatusMsg record(512);
        {
            Rig rig([](const KyValChgInfo&) {}, [](const char*) {});
            SimFault silent;
            silent.answer = SimAnswer::SILENT;
            rig.Device().SetFault(SimOperation::FETCH, silent);
            if (!rig.Bound() || !rig.Request()) return state.SkipWithError("the engine took no request");
            Sleep(std::chrono::milliseconds(50));
            gated = MeasureReads(pause, [&] { return rig.Engine().GetStatus(""); });
            record = rig.Engine().GetStatus("");
            if (record.GetStatusMsg() != "In Progress - No progress to report")
                return state.SkipWithError("no monitor was polling");
        }
        BareLoop loop(record);
        const Samples bare = MeasureReads(pause, [&] { return loop.Read(); });
        state.SetIterationTime(gated.Quantile(0.5) / 1e6);
        CountReads(state, "", gated);
        CountReads(state, "bare_", bare);
        state.counters["p99_gain"] = bare.Quantile(0.99) / gated.Quantile(0.99);
    }
    state.SetLabel("wanted: p99_us<=50 p99_gain>=10");
}

bool IsReady(const KyValChgInfo& change) {
    constexpr std::array<unsigned short, 5> ready = {'R', 'E', 'A', 'D', 'Y'};
    return change.pntId == sim_point::CLIENT_FILE_REQ && change.valLength == ready.size() &&
           std::memcmp(change.value, ready.data(), sizeof ready) == 0;
}

/// What is left of the file after the engine's work when the same is done by hand. @return false if it failed
bool MoveByHand(const std::string& source) {
    struct stat info = {};
    return CopyInChunks(source, kLandingPath) && stat(kLandingPath, &info) == 0 &&
           info.st_size == kFileSize && std::rename(kLandingPath, kFinalPath) == 0;
}

void Fetch(benchmark::State& state) {
    std::atomic<Clock::time_point> ready{};
    std::atomic<Clock::time_point> success{};
    Rig rig(
        [&](const KyValChgInfo& change) {
            if (IsReady(change)) ready = Clock::now();
        },
        [&](const char* value) {
            if (std::strcmp(value, "SUCCESS") == 0) success = Clock::now();
        });
    if (!rig.Bound()) return state.SkipWithError("the engine was not bound");
    Samples engine;
    Samples hand;
    const std::string source = std::string(kDeviceDirectory) + "/" + kFileName;
    for ([[maybe_unused]] auto iteration : state) {
        unlink(kFinalPath);
        success = Clock::time_point();
        if (!rig.Request()) return state.SkipWithError("the engine took no request");
        while (success.load() == Clock::time_point())
            Sleep(std::chrono::milliseconds(1));
        rig.WaitIdle();
        const auto time = success.load() - ready.load();
        state.SetIterationTime(std::chrono::duration<double>(time).count());
        engine.Add(time);

        unlink(kFinalPath);
        const auto begin = Clock::now();
        const bool moved = MoveByHand(source);
        hand.Add(Clock::now() - begin);
        if (!moved) return state.SkipWithError("the file could not be moved by hand");
    }
    state.counters["p50_us"] = engine.Quantile(0.5);
    state.counters["hand_p50_us"] = hand.Quantile(0.5);
    state.counters["ratio"] = engine.Quantile(0.5) / hand.Quantile(0.5);
    state.SetLabel("wanted: ratio<=1.3");
}

BENCHMARK(GetStatusWhilePolling)
    ->ArgName("pause_us")
    ->Arg(0)
    ->Arg(100)
    ->Iterations(1)
    ->Repetitions(3)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

BENCHMARK(Fetch)->Iterations(300)->Repetitions(5)->UseManualTime()->Unit(benchmark::kMicrosecond);

/// Keeps this process on at most so many of the processors that it may use.
void LimitProcessors(int most) {
    cpu_set_t processors;
    if (sched_getaffinity(0, sizeof processors, &processors) != 0) return;
    for (int i = 0, used = 0; i < CPU_SETSIZE; ++i) {
        if (CPU_ISSET(static_cast<std::size_t>(i), &processors) && ++used > most)
            CPU_CLR(static_cast<std::size_t>(i), &processors);
    }
    sched_setaffinity(0, sizeof processors, &processors);
}

bool MakeDeviceFile() {
    std::filesystem::create_directories(kDeviceDirectory);
    const std::string path = std::string(kDeviceDirectory) + "/" + kFileName;
    const SimFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    const std::string bytes(kFileSize, 'x');
    return write(file.Get(), bytes.data(), bytes.size()) == kFileSize;
}

}  // namespace

int main(int argc, char** argv) {
    if (std::getenv("KY_SANDBOX") == nullptr) {
        std::fprintf(stderr,
                     "This writes to /var/local and /var/tmp and runs in a sandbox only: ./dev bench\n");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv) || !MakeDeviceFile()) return 1;
    LimitProcessors(2);
    ky_host::SetLogLevel(-1);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
