// The engine's status during a transfer, beside a plain mutex; and a fetch, beside the same file moved by hand.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "bench/Latency.h"
#include "engine/KyTferClient.h"
#include "host/KyFd.h"
#include "simdevice/RelayProxy.h"
#include "simdevice/SimDevice.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr unsigned short kDeviceId = 3;
constexpr int kFileSize = 307200;
constexpr char kFileName[] = "event.log";
constexpr char kDeviceDirectory[] = "/var/tmp/device";
constexpr char kDeviceFile[] = "/var/tmp/device/event.log";
constexpr char kLandingPath[] = "/var/local/tal/pldserver/3/event.log";
constexpr char kFinalPath[] = "/var/local/tal/pldserver/3/tferFiles/event.log";

void Sleep(std::chrono::microseconds duration) {
    const timespec pause{0, static_cast<long>(std::chrono::nanoseconds(duration).count())};
    nanosleep(&pause, nullptr);
}

std::unique_ptr<SimDevice> BuildDevice() {
    std::filesystem::create_directories(kDeviceDirectory);
    std::ofstream(kDeviceFile) << std::string(kFileSize, 'x');
    auto device = SimDeviceBuilder(kDeviceDirectory).DeviceId(kDeviceId).Build();
    if (!device) throw std::runtime_error("no simulated device");
    // Without a report, the engine does not search for the card, which takes eight seconds.
    device->FailPoint(SimAccess::REPORT_ID, sim_point::MON_AGENT_INFO, 1);
    return device;
}

/// An engine with a simulated device. It notes when the engine gets "READY", and when it writes "SUCCESS".
class Rig : private RelayProxy {
public:
    /// @param pauseMs  between two polls of a monitor
    explicit Rig(long pauseMs) : Rig(pauseMs, BuildDevice()) {}
    ~Rig() override {
        m_device->Abort();
        m_device->SetListener(nullptr);
    }

    SimDevice& Device() { return *m_device; }
    KyTferStatusMsg Record() { return m_engine.GetStatus(""); }

    void Request() {
        m_success = Clock::time_point();
        const KyTferStatusMsg answer = m_engine.GetFileFromDevRequest(kFileName, kFileSize);
        if (answer.GetStatus() != KyTferStatusMsg::TFER_STATUS_INPROGRESS)
            throw std::runtime_error(answer.GetStatusMsg());
    }

    /// Waits until the fetch has succeeded. @return its duration
    Clock::duration WaitForSuccess() {
        while (m_success.load() == Clock::time_point())
            Sleep(1ms);
        WaitIdle();
        return m_success.load() - m_ready.load();
    }

private:
    Rig(long pauseMs, std::unique_ptr<SimDevice> device) : RelayProxy(*device), m_device(std::move(device)) {
        m_engine.SetPollPause(static_cast<unsigned int>(pauseMs));
        unlink(kLandingPath);
        m_device->SetListener([this](const KyValChgInfo& change) {
            if (IsReady(change)) m_ready = Clock::now();
            m_engine.DataChange(change);
        });
        if (m_engine.Init(kDeviceId, this) != 0) throw std::runtime_error("the engine was not bound");
        WaitIdle();
    }

    int Before(const ProxyCall& call) override {
        if (call.value == "SUCCESS") m_success = Clock::now();
        return 0;
    }

    static bool IsReady(const KyValChgInfo& change) {
        constexpr std::array<unsigned short, 5> kReady = {'R', 'E', 'A', 'D', 'Y'};
        return change.pntId == sim_point::CLIENT_FILE_REQ && change.valLength == kReady.size() &&
               std::memcmp(change.value, kReady.data(), sizeof kReady) == 0;
    }

    void WaitIdle() {
        while (m_engine.WorkerRunning())
            Sleep(1ms);
        m_device->WaitIdle(10000);
    }

    std::atomic<Clock::time_point> m_ready{Clock::time_point()};
    std::atomic<Clock::time_point> m_success{Clock::time_point()};
    std::unique_ptr<SimDevice> m_device;
    KyTferClient m_engine;
};

/// A thread that repeats its work.
class Loop {
public:
    explicit Loop(const std::function<void()>& work)
        : m_thread([this, work] {
              while (!m_stop)
                  work();
          }) {}
    ~Loop() {
        m_stop = true;
        m_thread.join();
    }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

bool LandingFileIs(int size) {
    struct stat info = {};
    return stat(kLandingPath, &info) == 0 && info.st_size == size;
}

/// The state that the repetitions of one benchmark share. The first repetition destroys the state of the benchmark
/// before, and makes its own.
void* SharedState(const std::string& owner, const std::function<std::shared_ptr<void>()>& make) {
    static std::string s_owner = owner;
    static std::shared_ptr<void> s_state = make();  // destroyed before all static objects that make() creates
    if (s_owner != owner) {
        s_state.reset();
        s_state = make();
        s_owner = owner;
    }
    return s_state.get();
}

// --- Reading the status. The argument is the pause between two polls of the monitor in milliseconds: 0 is the
// default of the engine, 20 that of the service.

constexpr int kReads = 5000;

/// Reads the status while the monitor of a fetch polls, which does not end.
void MeasureGetStatus(benchmark::State& state, const SimFault& fault, const char* wantedText) {
    const auto start = [&] {
        auto rig = std::make_shared<Rig>(state.range(0));
        rig->Device().SetFault(SimOperation::FETCH, fault);
        rig->Request();
        Sleep(50ms);
        if (rig->Record().GetStatusMsg() != wantedText) throw std::runtime_error("the monitor does not poll");
        return rig;
    };
    auto* const rig = static_cast<Rig*>(SharedState(wantedText + std::to_string(state.range(0)), start));
    Sleep(100us);
    MeasureCall(state, [&] { benchmark::DoNotOptimize(rig->Record()); });
}

// The device does not answer.
void GetStatusNothingArrives(benchmark::State& state) {
    SimFault fault;
    fault.answer = SimAnswer::SILENT;
    MeasureGetStatus(state, fault, "In Progress - No progress to report");
}

// A part of the file arrives. This differs on a file system in memory: there, looking up a missing file leaves
// work to the kernel, which it does in bursts of up to a millisecond while the monitor holds the mutex.
void GetStatusPartArrived(benchmark::State& state) {
    SimFault fault;
    fault.stuck = true;
    fault.stuckAfterBytes = 4096;
    MeasureGetStatus(state, fault, "File transfer inprogress");
}

/// A monitor that polls without a pause, and a record that a plain mutex guards.
struct PolledRecord {
    std::mutex mutex;
    KyTferStatusMsg record{512};
    Loop poll{[this] {
        const std::lock_guard<std::mutex> lock(mutex);
        benchmark::DoNotOptimize(LandingFileIs(kFileSize));
    }};
};

// The comparison for GetStatus with a pause of 0.
void CopyRecordUnderMutex(benchmark::State& state) {
    auto* const polled =
        static_cast<PolledRecord*>(SharedState("mutex", [] { return std::make_shared<PolledRecord>(); }));
    Sleep(100us);
    MeasureCall(state, [&] {
        const std::lock_guard<std::mutex> lock(polled->mutex);
        benchmark::DoNotOptimize(KyTferStatusMsg(polled->record));
    });
}

void EachRead(benchmark::internal::Benchmark* benchmark) {
    MeasureEachCall(benchmark, kReads);
}
BENCHMARK(GetStatusPartArrived)->Arg(0)->Arg(20)->Apply(EachRead);
BENCHMARK(GetStatusNothingArrives)->Arg(0)->Arg(20)->Apply(EachRead);
BENCHMARK(CopyRecordUnderMutex)->Apply(EachRead);

// --- Fetching, from the report of "READY" to the write of "SUCCESS"

constexpr int kFetches = 1000;

/// An engine that is idle until its first request. Creates the directories of files.
Rig& IdleRig(long pauseMs) {
    const auto make = [&] { return std::make_shared<Rig>(pauseMs); };
    return *static_cast<Rig*>(SharedState("fetch" + std::to_string(pauseMs), make));
}

void Fetch(benchmark::State& state) {
    Rig& rig = IdleRig(state.range(0));
    for ([[maybe_unused]] auto iteration : state) {
        unlink(kFinalPath);
        rig.Request();
        state.SetIterationTime(std::chrono::duration<double>(rig.WaitForSuccess()).count());
    }
}

/// Copies the file as the simulated device delivers it: in chunks of 64 KiB.
bool CopyInChunks() {
    std::array<char, 65536> chunk;
    const KyFd source(open(kDeviceFile, O_RDONLY | O_CLOEXEC));
    KyFd target(open(kLandingPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    ssize_t count = 0;
    for (off_t offset = 0; (count = pread(source.Get(), chunk.data(), chunk.size(), offset)) > 0;
         offset += count) {
        if (write(target.Get(), chunk.data(), static_cast<std::size_t>(count)) != count) return false;
    }
    return count == 0 && target.Close();
}

void MoveByHand() {
    if (!CopyInChunks() || !LandingFileIs(kFileSize) || std::rename(kLandingPath, kFinalPath) != 0)
        throw std::runtime_error("the file could not be moved by hand");
}

// The lower bound of Fetch: the same file operations without the engine.
void FetchByHand(benchmark::State& state) {
    IdleRig(20);
    unlink(kFinalPath);
    Sleep(1ms);
    MeasureCall(state, MoveByHand);
}

// The same on a thread of its own, beside one that looks for the file without a pause, as the engine's monitor does.
void FetchByHandBesideLooking(benchmark::State& state) {
    IdleRig(20);
    unlink(kFinalPath);
    const Loop look([] { benchmark::DoNotOptimize(LandingFileIs(kFileSize)); });
    Sleep(1ms);
    MeasureCall(state, [] { std::thread(MoveByHand).join(); });
}

void EachFetch(benchmark::internal::Benchmark* benchmark) {
    MeasureEachCall(benchmark, kFetches);
}
BENCHMARK(Fetch)->Arg(0)->Arg(20)->Apply(EachFetch);
BENCHMARK(FetchByHand)->Apply(EachFetch);
BENCHMARK(FetchByHandBesideLooking)->Apply(EachFetch);

}  // namespace
