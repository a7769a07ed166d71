#include "engine/EngineFixture.h"

namespace {

using Fetch = EngineTest;

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
        EXPECT_TRUE(WaitForOutcome(size == 20480 ? "complete: File Transfer Complete"
                                                 : "in progress: File transfer inprogress"));
    }
    ASSERT_TRUE(WaitUntilQuiet());
    EXPECT_EQ(log->Count(5, line), 4);
    EXPECT_EQ(log->Texts("MonitorGetFileRequest").back(), "Leave success");
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
    for (const char* name : {"../../secret", "..", "x/../../../secret"}) {
        SCOPED_TRACE(name);
        Start();
        WriteFile("/var/local/tal/secret", "12345");
        Request(name, 5);
        device->ChangeString(8602, "");  // or it would be a repeat
        device->ChangeString(8602, "READY");
        EXPECT_EQ(WrittenAfterRequest(1), Strings{"8604=0"}) << "the device is not asked";
        EXPECT_EQ(ReadFile("/var/local/tal/secret"), "12345");
        SteppedTime::Advance(181s);
        ASSERT_TRUE(WaitForOutcome(kTimedOut) && WaitUntilQuiet());
    }
}

}  // namespace
