#include <atomic>
#include <filesystem>
#include <random>
#include <thread>

#include "engine/EngineFixture.h"
#include "engine/Gate.h"
#include "host/KyHostLog.h"
#include "simdevice/SimPoints.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

const char kTimedOut[] = "failed: File transfer Failed - timeout";
const char kArrived[] = "complete: File Transfer Complete";

std::string Fetched(const std::string& name) {
    return "complete: Retrieved file(" + name +
           ") successfully. and placed it in (/var/local/tal/pldserver/3/" + name + ")";
}

SimFault Fault(void (*set)(SimFault&)) {
    SimFault fault;
    set(fault);
    return fault;
}

class Fetch : public EngineTest {
public:
    using EngineTest::device;
};

/// Every way in which a fetch ends, with the device's faults; the writes are those behind the request's own
/// two.
TEST_F(Fetch, Endings) {
    const std::vector<std::string> kSuccess = {"get f", "8602=", "8602=SUCCESS", "8604=0"};
    const std::vector<std::string> kError = {"get f", "8602=", "8602=ERROR", "8604=0"};
    const std::vector<std::string> kAbsent = {"get f", "8604=0"};
    const struct {
        const char* name;
        size_t size;
        SimFault fault;
        const char* logged;  ///< at level 3, once; "" for no line of level 3 before the time limit
        std::vector<std::string> written;
        bool complete;
    } rows[] = {
        {"whole", 20480, {}, "", kSuccess, true},
        {"empty", 0, {}, "", kSuccess, true},
        {"READY twice", 100, Fault([](SimFault& f) { f.answer = SimAnswer::READY_TWICE; }), "", kSuccess,
         true},
        {"READY late", 100, Fault([](SimFault& f) { f.delayMs = 5000; }), "", kSuccess, true},
        {"READY before the request returns", 100, Fault([](SimFault& f) { f.answerBeforeReturn = true; }), "",
         kSuccess, true},
        {"no size announced", 100, Fault([](SimFault& f) { f.announceSize = false; }), "", kSuccess, true},
        {"shorter", 20480, Fault([](SimFault& f) { f.sizeDelta = -20380; }),
         "Failed to get file(f) from device. Expecting(20480) bytes only received(100) bytes.", kError,
         false},
        {"empty instead, whose size then fits the reset one", 20480,
         Fault([](SimFault& f) { f.sizeDelta = -20480; }),
         "Failed to get file(f) from device. Expecting(20480) bytes only received(0) bytes.", kError, false},
        {"longer", 100, Fault([](SimFault& f) { f.sizeDelta = 1; }),
         "Failed to get file(f) from device. Expecting(100) bytes only received(101) bytes.", kError, false},
        {"another size announced", 100, Fault([](SimFault& f) { f.announceSizeDelta = 5; }),
         "Failed to get file(f) from device. Expecting(105) bytes only received(100) bytes.", kError, false},
        {"no file", 100, Fault([](SimFault& f) { f.noFile = true; }),
         "Failed to get file(f) from device. and place it here(/var/local/tal/pldserver/3/f)", kAbsent,
         false},
        {"refused", 100, Fault([](SimFault& f) { f.refuse = true; }),
         "Failed to get file(f) from device. and place it here(/var/local/tal/pldserver/3/f)", kAbsent,
         false},
        {"silent", 100, Fault([](SimFault& f) { f.answer = SimAnswer::SILENT; }), "", {}, false},
        {"NONE", 100, Fault([](SimFault& f) { f.answer = SimAnswer::NONE_VALUE; }), "", {}, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        const std::string bytes = PutOnDevice("f", row.size);
        Start();
        device->SetFault(SimOperation::FETCH, row.fault);
        const int errors = log.Count(3, "");
        // The record tells of success before the device hears of it.
        std::string recordAtSuccess;
        proxy->afterSetString = [&](const char* value) {
            if (std::string(value) == "SUCCESS") recordAtSuccess = Outcome(Record());
        };
        const Status accepted = Request("f", static_cast<int>(row.size));
        EXPECT_EQ(Outcome(accepted), "in progress: ");
        EXPECT_EQ(accepted.GetReqType(), Status::TFER_REQ_GET_FILE);
        EXPECT_EQ(accepted.GetBytesRequested(), row.size);
        EXPECT_EQ(accepted.GetXferFullFilePath(), std::string(kLanding) + "f");

        ASSERT_TRUE(WaitUntil([&] { return Written().size() == 2 + row.written.size(); }));
        ASSERT_TRUE(WaitUntil([&] { return !engine->WorkerRunning(); }) && device->WaitIdle(10000));
        auto written = Written();
        EXPECT_EQ(std::vector<std::string>(written.begin() + 2, written.end()), row.written);
        EXPECT_EQ(log.Count(3, "") - errors, row.logged[0] == '\0' ? 0 : 1);
        EXPECT_GE(log.Count(3, row.logged), row.logged[0] == '\0' ? 0 : 1);
        if (row.complete) {
            ASSERT_TRUE(WaitUntilQuiet());
            EXPECT_EQ(Outcome(Record()), Fetched("f"));
            EXPECT_EQ(recordAtSuccess, Fetched("f"));
            EXPECT_EQ(Record().GetBytesTransfered(), row.size);
            EXPECT_EQ(Record().GetXferFullFilePath(), std::string(kDownload) + "f");
            EXPECT_EQ(ReadFile(std::string(kDownload) + "f"), bytes);
            EXPECT_FALSE(fs::exists(std::string(kLanding) + "f"));
        } else {
            // A file that grows past its expected size may have been seen at it: then the monitor has left,
            // and the worker's row is the last.
            const std::string workersRow = std::string("failed: ") + row.logged;
            const bool watched = log.Texts("MonitorGetFileRequest").back() != "Leave success";
            EXPECT_TRUE(watched || row.fault.sizeDelta > 0);
            if (watched) {
                EXPECT_TRUE(WaitUntil([&] { return Record().GetStatus() == Status::TFER_STATUS_INPROGRESS; }))
                    << "the monitor rewrites the worker's row until its limit";
                EXPECT_EQ(Outcome(engine->GetFileFromDevRequest("g", 1)),
                          "failed: Transaction already in progress");
            }
            SteppedTime::Advance(181s);
            ASSERT_TRUE(WaitUntilQuiet());
            EXPECT_EQ(Outcome(Record()), watched ? kTimedOut : workersRow);
        }
        TearDown();
    }
}

TEST_F(Fetch, MonitorReportsEachSizeOnceAndEndsTheTransaction) {
    Start();
    device->SetListener(nullptr);
    Request("event.log", 20480);
    for (const unsigned int size : {0U, 8192U, 20481U, 20480U}) {
        // In one step: a write shows every page of the file as a size of its own.
        WriteFile(files / "next", std::string(size, 'x'));
        fs::copy_file(files / "next", std::string(kLanding) + "next");
        fs::rename(std::string(kLanding) + "next", std::string(kLanding) + "event.log");
        ASSERT_TRUE(WaitUntil([&] { return Record().GetBytesTransfered() == size; }));
        EXPECT_TRUE(WaitUntil([&] {
            return Outcome(Record()) == (size == 20480 ? kArrived : "in progress: File transfer inprogress");
        }));
    }
    ASSERT_TRUE(WaitUntilQuiet());
    const std::string line =
        "Looking for file(/var/local/tal/pldserver/3/event.log) bytesreq(20480) haverec(";
    for (const char* size : {"8192)", "20481)", "20480)"})
        EXPECT_EQ(log.Count(5, line + size), 1) << size;
    EXPECT_EQ(log.Texts("MonitorGetFileRequest").back(), "Leave success");
}

TEST_F(Fetch, LimitIsReachedWithAndWithoutTheTimeOutStep) {
    const struct {
        std::chrono::seconds passed;
        bool ended;
        std::vector<std::string> errors;
    } rows[] = {
        {179s, false, {}},
        {180s, true, {}},
        {181s,
         true,
         {"Timed out waiting for file transfer(/var/local/tal/pldserver/3/missing) bytes transferred(0)"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.passed.count());
        SetUp();
        Start();
        LogGates logGates({"startTime("});
        Gate& monitor = logGates[0];
        engine->GetFileFromDevRequest("missing", 5);
        ASSERT_TRUE(monitor.WaitForArrival());
        SteppedTime::Advance(row.passed);
        monitor.Open();
        if (row.ended) {
            ASSERT_TRUE(WaitUntilQuiet());
            EXPECT_EQ(Outcome(Record()), kTimedOut);
        } else {
            EXPECT_TRUE(WaitUntil(
                [&] { return Outcome(Record()) == "in progress: In Progress - No progress to report"; }));
        }
        EXPECT_EQ(logGates.Leave(), row.errors);
        TearDown();
    }
}

TEST_F(Fetch, FailingSystemAndPoints) {
    const struct {
        const char* name;
        void (*arrange)(Fetch& test);
        const char* logged;
    } rows[] = {
        {"move", [](Fetch&) { systemfaults::FailRename(18, 1); },
         "Failed to move file(/var/local/tal/pldserver/3/f) --> file(/var/local/tal/pldserver/3/tferFiles/f) "
         "errno(18) - Invalid cross-device link"},
        {"size point", [](Fetch& test) { test.device->FailPoint(SimAccess::WRITE, 8604, 7); },
         "Could not set xfer file size back to zero. status(7)"},
        {"outcome", [](Fetch& test) { test.device->FailPoint(SimAccess::WRITE, 8602, 7, -1, 2); },
         "Could not set string(SUCCESS) pntId(8602)"},
        {"monitor's thread", [](Fetch&) { systemfaults::FailNextThread(11, 1); }, nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        PutOnDevice("f", 1000);
        Start();
        const int errors = log.Count(3, "");
        row.arrange(*this);
        EXPECT_EQ(Outcome(engine->GetFileFromDevRequest("f", 1000)), "in progress: ");
        ASSERT_TRUE(WaitUntil([&] { return Outcome(Record()) == Fetched("f"); }) && WaitUntilQuiet());
        EXPECT_EQ(Outcome(Record()), Fetched("f"));
        EXPECT_EQ(Record().GetFilePath(), kDownload);
        EXPECT_EQ(log.Count(3, "") - errors, row.logged == nullptr ? 0 : 1);
        EXPECT_EQ(row.logged == nullptr ? 1 : log.Count(3, row.logged), 1);
        TearDown();
    }
}

TEST_F(Fetch, MonitorEndsFirstAndTheWorkersTextIsTheLast) {
    PutOnDevice("f", 1000);
    Gate gate;
    Start();
    proxy->afterGetFile = [&] { gate.Wait(); };
    Request("f", 1000);
    ASSERT_TRUE(gate.WaitForArrival());
    EXPECT_TRUE(WaitForThreadNamed("t-getFileWorker"));
    ASSERT_TRUE(WaitUntil([&] { return Outcome(Record()) == kArrived; }));
    EXPECT_EQ(Record().GetFilePath(), kLanding) << "provisional: the file has not been moved";
    gate.Open();
    ASSERT_TRUE(WaitUntilQuiet());
    EXPECT_EQ(Outcome(Record()), Fetched("f"));
}

TEST_F(Fetch, WorkerEndsFirstAndTheMonitorLeavesItsRow) {
    PutOnDevice("f", 1000);
    Start();
    systemfaults::FailNextThread(11, 1);
    engine->GetFileFromDevRequest("f", 1000);
    ASSERT_TRUE(WaitUntil([&] { return Outcome(Record()) == Fetched("f"); }) && WaitUntilQuiet());
    engine->MonitorGetFileRequest();
    EXPECT_EQ(Outcome(Record()), Fetched("f"));
    EXPECT_EQ(log.Texts("MonitorGetFileRequest").back(), "Leave break out");
}

TEST_F(Fetch, DeviceThatSaysReadyAgainChangesNoCompletedRecordAndGetsFewThreads) {
    PutOnDevice("f", 1000);
    Start();
    Request("f", 1000);
    ASSERT_TRUE(WaitUntil([&] { return Outcome(Record()) == Fetched("f"); }) && WaitUntilQuiet());
    fs::remove(std::string(kDownload) + "f");
    device->SetFault(SimOperation::FETCH, Fault([](SimFault& f) { f.stuck = true; }));
    for (int i = 0; i < 100; ++i) {
        device->ChangeString(sim_point::CLIENT_FILE_REQ, "");
        device->ChangeString(sim_point::CLIENT_FILE_REQ, "READY");
    }
    ASSERT_TRUE(device->WaitIdle(10000));
    EXPECT_EQ(Outcome(Record()), Fetched("f"));
    EXPECT_TRUE(WaitForThreads(8));
    device->Abort();
    ASSERT_TRUE(WaitForThreads(0));
    EXPECT_EQ(Outcome(Record()), Fetched("f"));
}

TEST_F(Fetch, LateWorkerMovesItsFileAndLeavesTheNextTransactionAlone) {
    const std::string bytes = PutOnDevice("old", 1000);
    Gate gate;
    Start();
    proxy->beforeGetFile = [&] { gate.Wait(); };
    Request("old", 1000);
    ASSERT_TRUE(gate.WaitForArrival());
    SteppedTime::Advance(181s);
    ASSERT_TRUE(WaitUntil([&] { return Outcome(Record()) == kTimedOut; }));
    device->SetListener(nullptr);
    device->ClearCalls();
    engine->CancelTransaction("only logged");
    Request("new", 55);
    gate.Open();
    ASSERT_TRUE(WaitUntil([&] { return !engine->WorkerRunning(); }));
    EXPECT_EQ(Written(),
              (std::vector<std::string>{"8602=", "8602=new", "get old", "8602=", "8602=SUCCESS", "8604=0"}));
    EXPECT_EQ(ReadFile(std::string(kDownload) + "old"), bytes);
    EXPECT_TRUE(
        WaitUntil([&] { return Outcome(Record()) == "in progress: In Progress - No progress to report"; }));
    EXPECT_EQ(Record().GetXferFullFilePath(), std::string(kLanding) + "new");
    EXPECT_TRUE(WaitForThreads(1)) << "its monitor goes on";
}

/// A monitor that has outlived its transaction, in one of the two places where it can, meets the next one.
TEST_F(Fetch, OldMonitorLeavesTheNextTransactionAlone) {
    for (const bool completed : {true, false}) {
        SCOPED_TRACE(completed ? "in its last second after completion" : "between two polls after a failure");
        SetUp();
        PutOnDevice("old", 1000);
        Gate worker;
        Gate delivery;
        Start();
        LogGates logGates({"Looking for file("});
        Gate& monitor = logGates[0];
        proxy->beforeGetFile = [&] { delivery.Wait(); };
        proxy->afterGetFile = [&] { worker.Wait(); };
        if (!completed) device->SetFault(SimOperation::FETCH, Fault([](SimFault& f) { f.sizeDelta = -1; }));
        engine->GetFileFromDevRequest("old", 1000);
        // The worker knows what it waits for; the monitor now does not recognise it.
        ASSERT_TRUE(delivery.WaitForArrival());
        device->ChangeUint32(sim_point::XFER_FILE_SIZE, 5000);
        ASSERT_TRUE(WaitUntil([&] { return Record().GetBytesRequested() == 5000; }));
        delivery.Open();
        ASSERT_TRUE(worker.WaitForArrival());
        ASSERT_TRUE(monitor.WaitForArrival());
        SteppedTime::Hold();
        SteppedTime::Advance(179s);
        worker.Open();
        ASSERT_TRUE(WaitUntil([&] { return !engine->WorkerRunning(); }));
        device->SetListener(nullptr);
        if (completed) {
            EXPECT_EQ(Outcome(Record()), Fetched("old"));
            monitor.Open();
            ASSERT_TRUE(SteppedTime::WaitForSleepers(1));
        }
        EXPECT_EQ(engine->GetFileFromDevRequest("new", 55).GetStatus(), Status::TFER_STATUS_INPROGRESS);
        monitor.Open();
        SteppedTime::Advance(2s);  // past the old transaction's limit, far from the new one's
        EXPECT_TRUE(WaitForThreads(1)) << "the old one ends";
        EXPECT_EQ(Record().GetStatus(), Status::TFER_STATUS_INPROGRESS);
        EXPECT_EQ(Record().GetXferFileName(), "new");
        WriteFile(std::string(kLanding) + "new", std::string(55, 'x'));
        EXPECT_TRUE(WaitUntil([&] { return Outcome(Record()) == kArrived; })) << "its own monitor is at work";
        SteppedTime::Release();
        TearDown();
    }
}

TEST_F(Fetch, NamesOfTheDeviceDoNotLeadElsewhere) {
    Start();
    WriteFile("/var/local/tal/secret", "12345");
    for (const char* name : {"../../secret", "..", "x/../../../secret"}) {
        SCOPED_TRACE(name);
        Request(name, 5);
        device->ClearCalls();
        device->ChangeString(sim_point::CLIENT_FILE_REQ, "");
        device->ChangeString(sim_point::CLIENT_FILE_REQ, "READY");
        ASSERT_TRUE(device->WaitIdle(10000));
        ASSERT_TRUE(WaitUntil([&] { return !engine->WorkerRunning(); }));
        EXPECT_EQ(ReadFile("/var/local/tal/secret"), "12345");
        for (const auto& written : Written())
            EXPECT_EQ(written.find("get "), std::string::npos);
        SteppedTime::Advance(181s);
        ASSERT_TRUE(WaitUntilQuiet());
        EXPECT_EQ(Outcome(Record()), kTimedOut);
    }
}

/// Instant fetches, one after the other as soon as the engine allows, while another thread reads the record:
/// none may end otherwise than complete and with its worker's text, and no row of the record may be torn.
TEST_F(Fetch, FiveHundredInstantOnesAndFiveHundredWhoseMoveFails) {
    PutOnDevice("f", 700);
    Device().Journal(false);
    Start();
    std::atomic<bool> done{false};
    std::atomic<int> torn{0};
    std::thread reader([&] {
        while (!done) {
            const std::string row = Outcome(engine->GetStatus("any"));
            const bool whole = row == kArrived || row == "none" || row == Fetched("f") ||
                               row.compare(0, 13, "in progress: ") == 0;
            if (!whole) ++torn;
        }
    });
    for (int i = 0; i < 1000 && !HasFailure(); ++i) {
        if (i >= 500) systemfaults::FailRename(18, 1);
        EXPECT_EQ(engine->GetFileFromDevRequest("f", 700).GetStatus(), Status::TFER_STATUS_INPROGRESS) << i;
        EXPECT_TRUE(WaitUntil([&] { return Record().GetFilePath() == kDownload; })) << i;
        EXPECT_TRUE(WaitForThreads(1) && device->WaitIdle(10000)) << i << ": the reader alone is left";
        EXPECT_EQ(Outcome(Record()), Fetched("f")) << i;
    }
    done = true;
    reader.join();
    EXPECT_EQ(torn, 0);
}

TEST_F(Fetch, StopAndDeleteAtRandomMoments) {
    PutOnDevice("f", 700);
    Device().Journal(false);
    std::mt19937 random(20261122);
    for (int i = 0; i < 100; ++i) {
        Start();
        device->SetLineRate(i % 2 == 0 ? 0 : 100000);
        engine->GetFileFromDevRequest("f", 700);
        for (auto spin = random() % 3000; spin > 0; --spin)
            engine->WorkerRunning();
        if (i % 3 == 0) {
            std::thread other([this] { engine->Stop(); });
            engine->Stop();
            other.join();
        }
        if (i % 3 == 1) engine->Stop();
        device->SetListener(nullptr);
        engine.reset();
        EXPECT_TRUE(WaitForThreads(0));
        device.reset();
    }
}

TEST_F(Fetch, StopWaitsForTheWorkerAndNothingReachesTheProxyAfterwards) {
    PutOnDevice("f", 700);
    Start();
    SimFault fault;
    fault.stuck = true;
    device->SetFault(SimOperation::FETCH, fault);
    engine->GetFileFromDevRequest("f", 700);
    ASSERT_TRUE(WaitUntil([&] { return engine->WorkerRunning() && Written().size() == 3; }));
    std::atomic<bool> stopped{false};
    std::thread stop([&] {
        engine->Stop();
        stopped = true;
    });
    ASSERT_TRUE(WaitUntil([&] { return Outcome(Record()) == kTimedOut; })) << "the monitor ends by itself";
    EXPECT_FALSE(stopped);
    device->Abort();
    stop.join();
    const size_t calls = device->Calls().size();
    EXPECT_EQ(Outcome(engine->GetFileFromDevRequest("f", 700)),
              "failed: LOGIC ERROR - KyTferRespClient not initialized");
    device->ChangeString(sim_point::CLIENT_FILE_REQ, "");  // or the next would be a repeat
    device->ChangeString(sim_point::CLIENT_FILE_REQ, "READY");
    ASSERT_TRUE(device->WaitIdle(10000));
    EXPECT_NE(engine->MaiStringSend("X", sim_point::CLIENT_FILE_REQ), 0);
    EXPECT_EQ(device->Calls().size(), calls);
    EXPECT_EQ(log.Count(5, "kick off file fetch thread"), 2);
    EXPECT_FALSE(engine->WorkerRunning());
}

/// Threads that ended are reclaimed: the process is as large after many fetches as after a few.
TEST_F(Fetch, ManyFetchesLeaveNoThreadsAndNoMemoryBehind) {
    PutOnDevice("f", 10);
    Device().Journal(false);
    Start();
    ky_host::SetLogSink(nullptr, nullptr);
    ky_host::SetLogLevel(3);
    const auto fetch = [this](int count) {
        for (int i = 0; i < count; ++i) {
            engine->GetFileFromDevRequest("f", 10);
            ASSERT_TRUE(WaitUntilQuiet()) << i;
            ASSERT_EQ(Outcome(Record()), Fetched("f"));
        }
    };
    fetch(20);
    const int threads = ThreadCount();
    const int descriptors = OpenDescriptors();
    const long space = AddressSpaceKiB();
    fetch(2000);
    EXPECT_LE(ThreadCount(), threads);
    EXPECT_EQ(OpenDescriptors(), descriptors);
    // A sanitizer's shadow grows with what it has seen.
    EXPECT_TRUE(kSanitized || AddressSpaceKiB() - space < 8 * 1024) << "less than one thread's stack";
}

}  // namespace
