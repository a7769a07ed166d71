#include <atomic>
#include <thread>

#include "engine/EngineFixture.h"
#include "host/KyHostLog.h"

namespace {

const char kArrived[] = "complete: File Transfer Complete";
const char kAsking[] = "request file(";  // logged before the worker asks the device for the file

class Fetch : public EngineTest {
protected:
    /// The device says once more, or unasked, that the file is ready.
    void SayReady() {
        device->ChangeString(8602, "");  // or it would be a repeat
        device->ChangeString(8602, "READY");
    }
};

/// Every way in which a fetch ends, with the device's faults; the writes are those behind the request's own
/// two.
TEST_F(Fetch, Endings) {
    const Strings kSuccess = {"get f", "8602=", "8602=SUCCESS", "8604=0"};
    const Strings kError = {"get f", "8602=", "8602=ERROR", "8604=0"};
    const auto otherSize = [](const std::string& expected, const std::string& received) {
        return "Failed to get file(f) from device. Expecting(" + expected + ") bytes only received(" +
               received + ") bytes.";
    };
    const struct {
        const char* name;
        size_t size;
        void (*arrange)(SimDevice& device, SimFault& fault);
        std::string logged;  ///< at level 3, once; "" for no line of level 3 before the time limit
        Strings written;
    } rows[] = {
        {"whole", 20480, [](SimDevice&, SimFault&) {}, "", kSuccess},
        {"empty", 0, [](SimDevice&, SimFault&) {}, "", kSuccess},
        {"READY late", 100, [](SimDevice&, SimFault& f) { f.delayMs = 5000; }, "", kSuccess},
        {"READY at once", 100, [](SimDevice&, SimFault& f) { f.answerBeforeReturn = true; }, "", kSuccess},
        {"not moved", 100, [](SimDevice&, SimFault&) { systemfaults::FailRename(18, 1); },
         "Failed to move file(/var/local/tal/pldserver/3/f) --> file(/var/local/tal/pldserver/3/tferFiles/f) "
         "errno(18) - Invalid cross-device link",
         kSuccess},
        {"size not written", 100, [](SimDevice& sim, SimFault&) { sim.FailPoint(SimAccess::WRITE, 8604, 7); },
         "Could not set xfer file size back to zero. status(7)", kSuccess},
        {"outcome not written", 100,
         [](SimDevice& sim, SimFault&) { sim.FailPoint(SimAccess::WRITE, 8602, 7, -1, 2); },
         "Could not set string(SUCCESS) pntId(8602) mmIdx(2) idx(0) uom(0) norm(0) timeout(1000) on "
         "device(3). Status(7)",
         kSuccess},
        {"shorter", 20480, [](SimDevice&, SimFault& f) { f.sizeDelta = -20380; }, otherSize("20480", "100"),
         kError},
        {"empty instead, whose size then fits the reset one", 20480,
         [](SimDevice&, SimFault& f) { f.sizeDelta = -20480; }, otherSize("20480", "0"), kError},
        {"longer", 100, [](SimDevice&, SimFault& f) { f.sizeDelta = 1; }, otherSize("100", "101"), kError},
        {"no file",
         100,
         [](SimDevice&, SimFault& f) { f.noFile = true; },
         "Failed to get file(f) from device. and place it here(/var/local/tal/pldserver/3/f)",
         {"get f", "8604=0"}},
        {"silent", 100, [](SimDevice&, SimFault& f) { f.answer = SimAnswer::SILENT; }, "", {}},
        {"NONE", 100, [](SimDevice&, SimFault& f) { f.answer = SimAnswer::NONE_VALUE; }, "", {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Start(row.size);
        SimFault fault;
        row.arrange(*device, fault);
        device->SetFault(SimOperation::FETCH, fault);
        const Status accepted = Request("f", static_cast<int>(row.size));
        EXPECT_EQ(Outcome(accepted), "in progress: ");
        EXPECT_EQ(accepted.GetReqType(), Status::TFER_REQ_GET_FILE);
        EXPECT_EQ(accepted.GetBytesRequested(), row.size);
        EXPECT_EQ(accepted.GetXferFullFilePath(), std::string(kLanding) + "f");

        EXPECT_EQ(WrittenAfterRequest(row.written.size()), row.written);
        EXPECT_EQ(Errors(), row.logged.empty() ? Strings{} : Strings{row.logged});
        if (row.written == kSuccess) {
            ASSERT_TRUE(WaitUntilQuiet());
            engine->MonitorGetFileRequest();  // one that comes late leaves the worker's row
            EXPECT_EQ(Outcome(Record()), Fetched("f"));
            EXPECT_EQ(Record().GetBytesTransfered(), row.size);
            EXPECT_EQ(Record().GetFilePath(), kDownload);
            const bool moved = row.logged.find("move") == std::string::npos;
            EXPECT_EQ(ReadFile(std::string(moved ? kDownload : kLanding) + "f"), bytes);
            EXPECT_EQ(fs::exists(std::string(kLanding) + "f"), !moved);
            continue;
        }
        // A file that grows past its expected size may have been seen at it: then the monitor has left, and
        // the worker's row is the last.
        const bool watched = log->Texts("MonitorGetFileRequest").back() != "Leave success";
        EXPECT_TRUE(watched || fault.sizeDelta > 0);
        if (watched) {
            EXPECT_TRUE(WaitUntil([&] { return Record().GetStatus() == Status::TFER_STATUS_INPROGRESS; }))
                << "the monitor rewrites the worker's row until its limit";
            EXPECT_EQ(Outcome(engine->GetFileFromDevRequest("g", 1)), kInProgress);
        }
        SteppedTime::Advance(181s);
        ASSERT_TRUE(WaitUntilQuiet());
        EXPECT_EQ(Outcome(Record()), watched ? kTimedOut : "failed: " + row.logged);
    }
}

TEST_F(Fetch, MonitorReportsEachSizeOnceAndEndsTheTransaction) {
    Start();
    device->SetListener(nullptr);
    Request("event.log", 20480);
    const std::string path = std::string(kLanding) + "event.log";
    const std::string line = "Looking for file(" + path + ") bytesreq(20480) haverec(";
    WriteFile(path, "");
    for (const unsigned int size : {0U, 8192U, 20481U, 20480U}) {
        fs::resize_file(path, size);
        EXPECT_TRUE(WaitUntil([&] { return log->Count(5, line + std::to_string(size) + ")") == 1; }));
        EXPECT_EQ(Record().GetBytesTransfered(), size);
        EXPECT_TRUE(WaitForOutcome(size == 20480 ? kArrived : "in progress: File transfer inprogress"));
    }
    ASSERT_TRUE(WaitUntilQuiet());
    EXPECT_EQ(log->Count(5, line), 4);
    EXPECT_EQ(log->Texts("MonitorGetFileRequest").back(), "Leave success");
}

TEST_F(Fetch, LimitIsReachedWithAndWithoutTheTimeOutStep) {
    const std::string step =
        "Timed out waiting for file transfer(/var/local/tal/pldserver/3/missing) bytes transferred(0)";
    const struct {
        std::chrono::seconds passed;
        const char* outcome;
        Strings errors;
    } rows[] = {{179s, kNothingYet, {}}, {180s, kTimedOut, {}}, {181s, kTimedOut, {step}}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.passed.count());
        Start();
        LogGates gates({"startTime("});
        engine->GetFileFromDevRequest("missing", 5);
        ASSERT_NE(gates.Arrival("startTime("), "");
        SteppedTime::Advance(row.passed);
        gates.Open("startTime(");
        EXPECT_TRUE(WaitForOutcome(row.outcome));
        EXPECT_TRUE(WaitForThreads(row.outcome == kTimedOut ? 0 : 1));
        EXPECT_EQ(gates.Leave(), row.errors);
        TearDown();
    }
}

/// It once stayed in progress for ever, and every later request was refused.
TEST_F(Fetch, OneWithoutAMonitorEndsInTime) {
    Start();
    device->SetFault(SimOperation::FETCH, Fault([](SimFault& f) { f.answer = SimAnswer::SILENT; }));
    systemfaults::FailNextThread(11);
    engine->GetFileFromDevRequest("f", 1000);
    EXPECT_EQ(log->Count(3, "Could not start thread(t-getFileMonitor) error(11)"), 1);
    SteppedTime::Advance(180s);
    EXPECT_EQ(Outcome(engine->GetFileFromDevRequest("f", 1000)), kInProgress);
    SteppedTime::Advance(1s);
    EXPECT_EQ(Outcome(Record()), kTimedOut);
    device->ClearFaults();
    engine->GetFileFromDevRequest("f", 1000);
    EXPECT_TRUE(WaitForOutcome(Fetched("f")));
}

TEST_F(Fetch, MonitorEndsFirstAndTheWorkersTextIsTheLast) {
    Start();
    LogGates gates({"Retrieved file(", "Send value(SUCCESS)"});
    engine->GetFileFromDevRequest("f", 1000);
    EXPECT_EQ(gates.Arrival("Retrieved file("), "t-getFileWorker");
    ASSERT_TRUE(WaitForOutcome(kArrived));
    EXPECT_EQ(Record().GetFilePath(), kLanding) << "provisional: the file has not been moved";
    gates.Open("Retrieved file(");
    ASSERT_NE(gates.Arrival("Send value(SUCCESS)"), "");
    EXPECT_EQ(Outcome(Record()), Fetched("f")) << "the record tells of it before the device hears";
    gates.Leave();
    ASSERT_TRUE(WaitUntilQuiet());
    EXPECT_EQ(Outcome(Record()), Fetched("f"));
}

TEST_F(Fetch, DeviceThatSaysReadyAgainChangesNoCompletedRecordAndGetsFewThreads) {
    Start();
    Request("f", 1000);
    ASSERT_TRUE(WaitForOutcome(Fetched("f")) && WaitUntilQuiet());
    fs::remove(std::string(kDownload) + "f");
    device->SetFault(SimOperation::FETCH, Fault([](SimFault& f) { f.stuck = true; }));
    for (int i = 0; i < 100; ++i)
        SayReady();
    ASSERT_TRUE(device->WaitIdle(10000));
    EXPECT_EQ(Outcome(Record()), Fetched("f"));
    EXPECT_TRUE(WaitForThreads(8));
    device->Abort();
    ASSERT_TRUE(WaitForThreads(0));
    EXPECT_EQ(Outcome(Record()), Fetched("f"));
}

/// A worker whose transaction has timed out: alone it completes it after all; followed by another one, or
/// abandoned, it drops its file and touches nothing.
TEST_F(Fetch, LateWorker) {
    for (const char* const next : {"", "new", "f", "abandoned"}) {
        SCOPED_TRACE(next);
        const std::string name = next;
        Start();
        LogGates gates({"startTime(", "request file(f)"});
        engine->GetFileFromDevRequest("f", 1000);
        ASSERT_NE(gates.Arrival("startTime("), "");
        ASSERT_NE(gates.Arrival("request file(f)"), "");
        device->SetListener(nullptr);
        device->ClearCalls();
        if (name == "abandoned") {
            EXPECT_EQ(Outcome(engine->AbandonTransaction("why")), "failed: File transfer cancelled: why");
        } else {
            SteppedTime::Advance(181s);
            gates.Open("startTime(");
            ASSERT_TRUE(WaitForOutcome(kTimedOut));
        }
        if (name == "new" || name == "f") engine->GetFileFromDevRequest(name, 55);
        const Strings before = Written();
        gates.Leave();
        ASSERT_TRUE(WaitForWorker());
        Strings after = Written();
        after.erase(after.begin(), after.begin() + static_cast<long>(before.size()));
        EXPECT_EQ(after,
                  name.empty() ? (Strings{"get f", "8602=", "8602=SUCCESS", "8604=0"}) : Strings{"get f"});
        EXPECT_EQ(fs::exists(std::string(kDownload) + "f"), name.empty());
        EXPECT_EQ(fs::exists(std::string(kLanding) + "f"), name == "f")
            << "the next one's file is not removed";
        EXPECT_TRUE(!name.empty() || Outcome(Record()) == Fetched("f"));
        EXPECT_TRUE(name != "new" || WaitForOutcome(kNothingYet)) << "its monitor goes on";
        TearDown();
    }
}

/// A monitor that has outlived its transaction, in one of the two places where it can, meets the next one.
TEST_F(Fetch, OldMonitorLeavesTheNextTransactionAlone) {
    const char kWatching[] = "Looking for file(";
    for (const bool completed : {true, false}) {
        SCOPED_TRACE(completed ? "in its last second after completion" : "between two polls after a failure");
        Start();
        LogGates gates({kAsking, kWatching});
        if (!completed) device->SetFault(SimOperation::FETCH, Fault([](SimFault& f) { f.sizeDelta = -1; }));
        engine->GetFileFromDevRequest("f", 1000);
        // The worker knows what it waits for; the monitor sees the first byte.
        ASSERT_NE(gates.Arrival(kAsking), "");
        WriteFile(std::string(kLanding) + "f", "x");
        ASSERT_NE(gates.Arrival(kWatching), "");
        SteppedTime::Hold();
        SteppedTime::Advance(179s);
        gates.Open(kAsking);
        ASSERT_TRUE(WaitForWorker());
        device->SetListener(nullptr);
        if (completed) {
            EXPECT_EQ(Outcome(Record()), Fetched("f"));
            gates.Open(kWatching);
            ASSERT_TRUE(SteppedTime::WaitForSleepers(1));
        }
        EXPECT_EQ(engine->GetFileFromDevRequest("new", 55).GetStatus(), Status::TFER_STATUS_INPROGRESS);
        gates.Open(kWatching);
        SteppedTime::Advance(2s);  // past the old transaction's limit, far from the new one's
        EXPECT_TRUE(WaitForThreads(1)) << "the old one ends";
        EXPECT_EQ(Record().GetStatus(), Status::TFER_STATUS_INPROGRESS);
        EXPECT_EQ(Record().GetXferFileName(), "new");
        WriteFile(std::string(kLanding) + "new", std::string(55, 'x'));
        EXPECT_TRUE(WaitForOutcome(kArrived)) << "its own monitor is at work";
        SteppedTime::Release();
        TearDown();
    }
}

TEST_F(Fetch, NamesOfTheDeviceDoNotLeadElsewhere) {
    for (const char* name : {"../../secret", "..", "x/../../../secret"}) {
        SCOPED_TRACE(name);
        Start();
        WriteFile("/var/local/tal/secret", "12345");
        Request(name, 5);
        SayReady();
        EXPECT_EQ(WrittenAfterRequest(1), Strings{"8604=0"}) << "the device is not asked";
        EXPECT_EQ(ReadFile("/var/local/tal/secret"), "12345");
        SteppedTime::Advance(181s);
        ASSERT_TRUE(WaitForOutcome(kTimedOut) && WaitUntilQuiet());
    }
}

/// Instant fetches, one after the other as soon as the engine allows, while another thread reads the record:
/// none may end otherwise than complete and with its worker's text, and no row of the record may be torn.
TEST_F(Fetch, ManyInstantOnes) {
    Device().Journal(false);
    Start();
    log.reset();
    ky_host::SetLogLevel(-1);
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done) {
            const std::string row = Outcome(engine->GetStatus("any"));
            EXPECT_TRUE(row == kArrived || row == "none: " || row == Fetched("f") ||
                        row.compare(0, 13, "in progress: ") == 0)
                << row;
        }
    });
    for (int i = 0; i < 500 && !HasFailure(); ++i) {
        EXPECT_EQ(engine->GetFileFromDevRequest("f", 1000).GetStatus(), Status::TFER_STATUS_INPROGRESS) << i;
        EXPECT_TRUE(WaitUntil([&] { return Record().GetFilePath() == kDownload; })) << i;
        EXPECT_TRUE(WaitForThreads(1) && device->WaitIdle(10000)) << i << ": the reader alone is left";
        EXPECT_EQ(Outcome(Record()), Fetched("f")) << i;
    }
    done = true;
    reader.join();
}

TEST_F(Fetch, StopWaitsForTheWorkerAndNothingReachesTheProxyAfterwards) {
    Start();
    device->SetFault(SimOperation::FETCH, Fault([](SimFault& f) { f.stuck = true; }));
    engine->GetFileFromDevRequest("f", 1000);
    ASSERT_TRUE(WaitUntil([&] { return engine->WorkerRunning() && Written().size() == 3; }));
    std::atomic<bool> stopped{false};
    std::thread stop([&] {
        engine->Stop();
        stopped = true;
    });
    ASSERT_TRUE(WaitForOutcome(kTimedOut)) << "the monitor ends by itself";
    EXPECT_FALSE(stopped);
    device->Abort();
    stop.join();
    const size_t calls = device->Calls().size();
    EXPECT_EQ(Outcome(engine->GetFileFromDevRequest("f", 1000)), kNotInitialized);
    SayReady();
    ASSERT_TRUE(device->WaitIdle(10000));
    EXPECT_NE(engine->MaiStringSend("X", 8602), 0);
    EXPECT_EQ(device->Calls().size(), calls);
    EXPECT_EQ(log->Count(5, "kick off file fetch thread"), 2) << "the second was refused";
    EXPECT_FALSE(engine->WorkerRunning());
}

}  // namespace
