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
};

/// How a fetch ends, and what is written after the request's own two writes.
TEST_F(Fetch, Endings) {
    const Strings kSuccess = {"get f", "8602=", "8602=SUCCESS", "8604=0"};
    const Strings kError = {"get f", "8602=", "8602=ERROR", "8604=0"};
    const Strings kMissing = {"get f", "8604=0"};
    const std::string noFile =
        "Failed to get file(f) from device. and place it here(/var/local/tal/pldserver/3/f)";
    const auto otherSize = [](const std::string& expected, const std::string& received) {
        return "Failed to get file(f) from device. Expecting(" + expected + ") bytes only received(" +
               received + ") bytes.";
    };
    const struct {
        const char* name;
        size_t size;
        void (*arrange)(RecordingProxy& calls, SimFault& fault);
        Strings logged;  ///< errors; the last one is the record's text if the fetch fails
        Strings written;
    } rows[] = {
        {"whole", 20480, [](RecordingProxy&, SimFault&) {}, {}, kSuccess},
        {"empty", 0, [](RecordingProxy&, SimFault&) {}, {}, kSuccess},
        {"not moved",
         100,
         [](RecordingProxy&, SimFault&) { systemfaults::FailRename(18, 1); },
         {"Failed to move file(/var/local/tal/pldserver/3/f) --> "
          "file(/var/local/tal/pldserver/3/tferFiles/f) errno(18) - Invalid cross-device link"},
         kSuccess},
        {"size not written",
         100,
         [](RecordingProxy& calls, SimFault&) { calls.Fail("8604=0", 7); },
         {"Could not set xfer file size back to zero. status(7)"},
         kSuccess},
        {"outcome not written",
         100,
         [](RecordingProxy& calls, SimFault&) { calls.Fail("8602=SUCCESS", 7); },
         {"Could not set string(SUCCESS) pntId(8602) mmIdx(2) idx(0) uom(0) norm(0) timeout(1000) on "
          "device(3). Status(7)"},
         kSuccess},
        {"shorter",
         20480,
         [](RecordingProxy&, SimFault& f) { f.sizeDelta = -20380; },
         {otherSize("20480", "100")},
         kError},
        {"empty instead, which fits the size that the worker resets",
         20480,
         [](RecordingProxy&, SimFault& f) { f.sizeDelta = -20480; },
         {otherSize("20480", "0")},
         kError},
        {"4 GiB more",
         100,
         [](RecordingProxy& calls, SimFault&) {
             calls.OnCall([](const std::string& call) {
                 if (call != "get f") return 0;
                 WriteFile("/var/local/tal/pldserver/3/f", "");
                 fs::resize_file("/var/local/tal/pldserver/3/f", 4294967396);
                 return 1;
             });
         },
         {otherSize("100", "4294967396")},
         kError},
        {"no file", 100, [](RecordingProxy&, SimFault& f) { f.noFile = true; }, {noFile}, kMissing},
        {"proxy throws",
         100,
         [](RecordingProxy& calls, SimFault&) {
             calls.OnCall([](const std::string& call) { return call == "get f" ? throw 7 : 0; });
         },
         {"The device proxy has thrown an exception: unknown", noFile},
         kMissing},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Start(row.size);
        SimFault fault;
        row.arrange(*proxy, fault);
        device->SetFault(SimOperation::FETCH, fault);
        const Status accepted = Request("f", static_cast<int>(row.size));
        EXPECT_EQ(Outcome(accepted), "in progress: ");
        EXPECT_EQ(accepted.GetReqType(), Status::TFER_REQ_GET_FILE);
        EXPECT_EQ(accepted.GetBytesRequested(), row.size);
        EXPECT_EQ(accepted.GetXferFullFilePath(), std::string(kLanding) + "f");
        EXPECT_EQ(WrittenAfterRequest(row.written.size()), row.written);
        EXPECT_EQ(Errors(), row.logged);
        if (row.written != kSuccess) {
            EXPECT_TRUE(WaitUntil([&] { return Record().GetStatus() == Status::TFER_STATUS_INPROGRESS; }))
                << "the monitor rewrites the worker's row until its limit";
            EXPECT_EQ(Outcome(engine->GetFileFromDevRequest("g", 1)), kInProgress);
            SteppedTime::Advance(181s);
            ASSERT_TRUE(WaitUntilQuiet());
            EXPECT_EQ(Outcome(Record()), kTimedOut);
            continue;
        }
        ASSERT_TRUE(WaitUntilQuiet());
        engine->MonitorGetFileRequest();  // a late monitor leaves the worker's row
        EXPECT_EQ(Outcome(Record()), Fetched("f"));
        EXPECT_EQ(Record().GetBytesTransfered(), row.size);
        EXPECT_EQ(Record().GetFilePath(), kDownload);
        const bool moved = row.name != std::string("not moved");
        EXPECT_EQ(ReadFile(std::string(moved ? kDownload : kLanding) + "f"), bytes);
        EXPECT_EQ(fs::exists(std::string(kLanding) + "f"), !moved);
    }
}

TEST_F(Fetch, MonitorReportsEachSizeOnceAndEndsTheTransaction) {
    Start();
    device->SetListener(nullptr);
    Request("event.log", 20480);
    const std::string path = std::string(kLanding) + "event.log";
    const std::string line = "Looking for file(" + path + ") bytesreq(20480) haverec(";
    WriteFile(path, "");
    for (const unsigned long long size : {0ULL, 8192ULL, 20481ULL, 4294967296ULL + 20480, 20480ULL}) {
        fs::resize_file(path, size);
        const unsigned int count = size > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(size);
        const std::string logged = line + std::to_string(static_cast<int>(count)) + ")";
        EXPECT_TRUE(WaitUntil([&] { return log->Count(5, logged) == 1; })) << logged;
        EXPECT_EQ(Record().GetBytesTransfered(), count);
        EXPECT_TRUE(WaitForOutcome(size == 20480 ? "complete: File Transfer Complete"
                                                 : "in progress: File transfer inprogress"));
    }
    ASSERT_TRUE(WaitUntilQuiet());
    EXPECT_EQ(log->Count(5, line), 5);
}

TEST_F(Fetch, LimitIsReachedInItsLastSecond) {
    Start();
    Request("missing", 5);
    SteppedTime::Advance(179s);
    EXPECT_TRUE(WaitForOutcome(kNothingYet));
    EXPECT_TRUE(WaitForThreads(1));
    SteppedTime::Advance(1s);
    EXPECT_TRUE(WaitForOutcome(kTimedOut) && WaitForThreads(0));
    EXPECT_EQ(Errors(), Strings{}) << "the time-out step comes a second later";
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
        ASSERT_TRUE(WaitForOutcome(kTimedOut) && WaitUntilQuiet());
    }
}

}  // namespace
