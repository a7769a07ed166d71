#include <algorithm>
#include <atomic>
#include <climits>

#include "engine/EngineFixture.h"

namespace {

class Fetch : public EngineTest {
protected:
    /// Requests a fetch, and waits until its monitor has read the clock.
    Status Request(const std::string& name, int size) {
        Status accepted = engine->GetFileFromDevRequest(name, size);
        EXPECT_TRUE(WaitUntil([&] { return log->Count(5, ") Diff(180)") == 1; }));
        return accepted;
    }

    static std::string OtherSize(const std::string& expected, const std::string& received) {
        return "Failed to get file(f) from device. Expecting(" + expected + ") bytes only received(" +
               received + ") bytes.";
    }
};

/// `written` are the calls after the request's own two writes.
TEST_F(Fetch, Endings) {
    const Strings kSuccess = {"get f", "8602=", "8602=SUCCESS", "8604=0"};
    const Strings kError = {"get f", "8602=", "8602=ERROR", "8604=0"};
    const Strings kMissing = {"get f", "8604=0"};
    const std::string notMoved =
        "Failed to move file(/var/local/tal/pldserver/3/f) --> "
        "file(/var/local/tal/pldserver/3/tferFiles/f) errno(18) - Invalid cross-device link";
    const struct {
        size_t size;
        int missing;        ///< bytes that the device does not deliver
        const char* fails;  ///< a call
        std::string logged;
        Strings written;
    } rows[] = {
        {20480, 0, "none", "", kSuccess},
        {0, 0, "none", "", kSuccess},
        {100, 0, "rename", notMoved, kSuccess},
        {100, 0, "8604=0", "Could not set xfer file size back to zero. status(7)", kSuccess},
        {100, 0, "8602=SUCCESS",
         "Could not set string(SUCCESS) pntId(8602) mmIdx(2) idx(0) uom(0) norm(0) timeout(1000) on "
         "device(3). Status(7)",
         kSuccess},
        {20480, 20380, "none", OtherSize("20480", "100"), kError},
        // The worker sets the size to 0 at its end. An empty file must not fit this size.
        {20480, 20480, "none", OtherSize("20480", "0"), kError},
        {100, 0, "get f",
         "Failed to get file(f) from device. and place it here(/var/local/tal/pldserver/3/f)", kMissing},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.size << " less " << row.missing << ", failing: " << row.fails);
        Start(row.size);
        SimFault fault;
        fault.sizeDelta = -row.missing;
        device->SetFault(SimOperation::FETCH, fault);
        proxy->Fail(row.fails, 7);
        if (row.logged == notMoved) systemfaults::FailNextRename(18);
        const Status accepted = Request("f", static_cast<int>(row.size));
        EXPECT_EQ(Outcome(accepted), "in progress: ");
        EXPECT_EQ(accepted.GetReqType(), Status::TFER_REQ_GET_FILE);
        EXPECT_EQ(accepted.GetBytesRequested(), row.size);
        EXPECT_EQ(accepted.GetXferFullFilePath(), std::string(kLanding) + "f");
        EXPECT_EQ(WrittenAfterRequest(row.written.size()), row.written);
        EXPECT_EQ(Errors(), row.logged.empty() ? Strings{} : Strings{row.logged});
        if (row.written != kSuccess) {
            EXPECT_TRUE(WaitUntil([&] { return Record().GetStatus() == Status::TFER_STATUS_INPROGRESS; }))
                << "the monitor rewrites the worker's row until its limit";
            EXPECT_EQ(Outcome(engine->GetFileFromDevRequest("g", 1)), kInProgress);
            SteppedTime::Advance(181s);
            EXPECT_TRUE(WaitForOutcome(kTimedOut));
            continue;
        }
        EXPECT_TRUE(WaitForOutcome(Fetched("f")));
        engine->MonitorGetFileRequest();  // a late monitor leaves the worker's row
        EXPECT_EQ(Outcome(Record()), Fetched("f"));
        EXPECT_EQ(Record().GetBytesTransfered(), row.size);
        EXPECT_EQ(Record().GetFilePath(), kDownload);
        const bool moved = row.logged != notMoved;
        EXPECT_EQ(ReadFile(std::string(moved ? kDownload : kLanding) + "f"), bytes);
        EXPECT_EQ(fs::exists(std::string(kLanding) + "f"), !moved);
    }
}

TEST_F(Fetch, MonitorReportsEachSizeOnceAndEndsTheTransaction) {
    Start();
    device->SetListener(nullptr);
    Request("f", 20480);
    const std::string path = std::string(kLanding) + "f";
    const std::string line = "Looking for file(" + path + ") bytesreq(20480) haverec(";
    constexpr unsigned long long kTooLarge = 4294967296 + 20480;
    WriteFile(path, "");
    for (const unsigned long long size : {0ULL, 8192ULL, 20481ULL, kTooLarge, 20480ULL}) {
        fs::resize_file(path, size);
        const auto count = static_cast<unsigned int>(std::min<unsigned long long>(size, UINT_MAX));
        const std::string logged = line + std::to_string(static_cast<int>(count)) + ")";
        EXPECT_TRUE(WaitUntil([&] { return log->Count(5, logged) == 1; })) << logged;
        EXPECT_EQ(Record().GetBytesTransfered(), count);
        EXPECT_TRUE(size == 20480 || WaitForOutcome("in progress: File transfer inprogress"));
        proxy->OnCall([](const std::string& call) { return call == "get f" ? throw 7 : 0; });
        if (size == kTooLarge) engine->GetFileFromDevice();
    }
    EXPECT_TRUE(WaitForOutcome("complete: File Transfer Complete"));
    EXPECT_EQ(log->Count(5, line), 5);
    EXPECT_EQ(Errors(), (Strings{"The device proxy has thrown an exception: unknown",
                                 OtherSize("20480", std::to_string(kTooLarge))}));
}

TEST_F(Fetch, LimitIsReachedInItsLastSecond) {
    Start();
    Request("missing", 5);
    SteppedTime::Advance(179s);
    EXPECT_TRUE(WaitForOutcome(kNothingYet));
    SteppedTime::Advance(1s);
    EXPECT_TRUE(WaitForOutcome(kTimedOut));
    EXPECT_EQ(Errors(), Strings{}) << "the time-out step comes a second later";
}

TEST_F(Fetch, PollPauseIsInMilliseconds) {
    Start();
    device->SetListener(nullptr);
    engine->SetPollPause(50);
    Request("f", 1000);
    WriteFile(std::string(kLanding) + "f", bytes);
    const auto arrived = [this] { return Outcome(Record()) == "complete: File Transfer Complete"; };
    EXPECT_TRUE(WaitUntil(arrived, 3s));
}

TEST_F(Fetch, NextStatusEndsWhatNoMonitorWatches) {
    Start();
    systemfaults::FailNextThread(11);
    engine->GetFileFromDevRequest("missing", 5);
    SteppedTime::Advance(180s);
    EXPECT_EQ(Record().GetStatus(), Status::TFER_STATUS_INPROGRESS);
    SteppedTime::Advance(1s);
    EXPECT_EQ(Outcome(Record()), kTimedOut);
}

/// The worker of an abandoned fetch removes its file, but not the next fetch's file of the same name.
TEST_F(Fetch, AbandonedWorkerLeavesTheNextFileOfThatName) {
    Start();
    std::atomic<int> calls{0};
    const auto dropped = [this] { return log->Count(4, "has been replaced; its file") == 1; };
    proxy->OnCall([&](const std::string& call) {
        if (call != "get f") return 0;
        const bool first = ++calls == 1;
        if (!first) WriteFile(std::string(kLanding) + "f", bytes);
        EXPECT_TRUE(WaitUntil(
            [&] { return first ? calls == 2 && fs::exists(kLanding + call.substr(4)) : dropped(); }));
        return 1;
    });
    Request("f", 1000);
    EXPECT_TRUE(WaitUntil([&] { return calls == 1; }));
    const Status abandoned = engine->AbandonTransaction("");
    EXPECT_EQ(Outcome(abandoned), "failed: File transfer cancelled");
    EXPECT_EQ(abandoned.GetReqType(), Status::TFER_REQ_NONE);
    EXPECT_EQ(proxy->Calls().back(), "abort");
    EXPECT_EQ(engine->GetFileFromDevRequest("f", 1000).GetStatus(), Status::TFER_STATUS_INPROGRESS);
    EXPECT_TRUE(WaitForOutcome(Fetched("f")));
    EXPECT_EQ(ReadFile(std::string(kDownload) + "f"), bytes);
}

TEST_F(Fetch, SizeThatIsAnnouncedAfterTheReportChangesNothing) {
    Start();
    proxy->OnCall([&](const std::string& call) {
        if (call != "get f") return 0;
        WriteFile(std::string(kLanding) + "f", bytes);
        EXPECT_TRUE(WaitUntil([&] { return Outcome(Record()) == "complete: File Transfer Complete"; }));
        device->ChangeUint32(8604, 99);
        EXPECT_TRUE(device->WaitIdle(10000));
        return 1;
    });
    Request("f", 1000);
    EXPECT_TRUE(WaitForOutcome(Fetched("f")));
    EXPECT_EQ(Record().GetBytesTransfered(), 1000U);
}

TEST_F(Fetch, NamesOfTheDeviceDoNotLeadElsewhere) {
    for (const std::string name : {"../../secret", "..", "x/../../../secret", "f..g"}) {
        SCOPED_TRACE(name);
        Start();
        WriteFile("/var/local/tal/secret", "12345");
        Request(name, 5);
        device->ChangeString(8602, "");  // so that the next value is no repeat
        device->ChangeString(8602, "READY");
        const bool harmless = name == "f..g";
        EXPECT_EQ(WrittenAfterRequest(harmless ? 2 : 1),
                  harmless ? (Strings{"get f..g", "8604=0"}) : Strings{"8604=0"});
        EXPECT_EQ(ReadFile("/var/local/tal/secret"), "12345");
        SteppedTime::Advance(181s);
        EXPECT_TRUE(WaitForOutcome(kTimedOut));
    }
}

}  // namespace
