#include <sys/stat.h>

#include <filesystem>

#include "engine/EngineFixture.h"
#include "engine/Gate.h"
#include "simdevice/SimPoints.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

const char kRequested[] = "in progress: Directory listing has been requested";
const char kTimedOut[] = "failed: File transfer Failed - timedout";
const char kListing[] = "listing.txt";

const std::string kFetched =
    "complete: Retrieved file(listing.txt) successfully. and placed it in "
    "(/var/local/tal/pldserver/3/listing.txt)";

class DirectoryFetch : public EngineTest {
public:
    using EngineTest::device;

protected:
    /// Requests a listing and waits until its monitor has taken the time. An answer that reaches the engine
    /// before the request has set up its record is lost, so the answer is held back unless that is wanted.
    Status List(bool answerMayBeEarly = false) {
        const int watching = log.Count(5, ") Diff(60)");
        if (!answerMayBeEarly) device->PauseDelivery();
        const Status accepted = engine->GetDirectoryFromDevRequest();
        device->ResumeDelivery();
        EXPECT_TRUE(WaitUntil([&] { return log.Count(5, ") Diff(60)") > watching; }));
        return accepted;
    }
    std::string LastOfMonitor() {
        const auto texts = log.Texts("MonitorGetDirRequest");
        return texts.empty() ? "" : texts.back();
    }
};

SimFault Fault(void (*set)(SimFault&)) {
    SimFault fault;
    set(fault);
    return fault;
}

TEST_F(DirectoryFetch, Endings) {
    const struct {
        const char* name;
        SimFault fault;
        bool complete, ended;  ///< ended: without waiting for the limit
        std::vector<std::string> writes;
    } rows[] = {
        {"whole", {}, true, true, {"get listing.txt", "8602=", "8602=SUCCESS", "8604=0"}},
        {"late",
         Fault([](SimFault& f) { f.delayMs = 5000; }),
         true,
         true,
         {"get listing.txt", "8602=", "8602=SUCCESS", "8604=0"}},
        {"garbage",
         Fault([](SimFault& f) { f.garbage = true; }),
         true,
         true,
         {"get listing.txt", "8602=", "8602=SUCCESS", "8604=0"}},
        {"silent", Fault([](SimFault& f) { f.answer = SimAnswer::SILENT; }), false, false, {}},
        {"NONE",
         Fault([](SimFault& f) {
             f.answer = SimAnswer::NONE_VALUE;
             f.delayMs = 500;
         }),
         false,
         true,
         {}},
        {"answer before the request has returned",
         Fault([](SimFault& f) { f.answerBeforeReturn = true; }),
         false,
         false,
         {}},
        {"wrong size announced",
         Fault([](SimFault& f) { f.announceSizeDelta = 7; }),
         false,
         false,
         {"get listing.txt", "8602=", "8602=ERROR", "8604=0"}},
        {"no file", Fault([](SimFault& f) { f.noFile = true; }), false, false, {"get listing.txt", "8604=0"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        PutOnDevice("f", 100);
        Start();
        device->SetFault(SimOperation::DIRECTORY, row.fault);
        const Status accepted = List(row.fault.answerBeforeReturn);
        EXPECT_EQ(Outcome(accepted), kRequested);
        EXPECT_EQ(accepted.GetOrigFileName(), "DIRREQ");
        EXPECT_EQ(accepted.GetXferFullFilePath(), std::string(kLanding) + "DIRREQ");
        EXPECT_EQ(accepted.GetBytesTransfered(), 0U);
        EXPECT_EQ(accepted.GetReqType(), Status::TFER_REQ_DIRECTORY);
        ASSERT_TRUE(WaitUntil([&] { return Written().size() == 2 + row.writes.size(); }));
        ASSERT_TRUE(device->WaitIdle(10000) && WaitUntil([&] { return !engine->WorkerRunning(); }));
        if (!row.ended) {
            ASSERT_TRUE(WaitForThreads(1)) << "the monitor waits for its limit";
            SteppedTime::Advance(61s);
        }
        ASSERT_TRUE(WaitUntilQuiet());
        const auto written = Written();
        EXPECT_EQ(std::vector<std::string>(written.begin() + 2, written.end()), row.writes);
        EXPECT_EQ(Outcome(Record()), row.complete ? kFetched : kTimedOut);
        if (!row.complete) {
            EXPECT_EQ(LastOfMonitor(), "Exit Bottom");
        } else {
            EXPECT_TRUE(LastOfMonitor().compare(0, 13, "Exit COMPLETE") == 0 ||
                        LastOfMonitor() == "Exit Bottom");
            EXPECT_EQ(Record().GetXferFullFilePath(), std::string(kDownload) + kListing);
            EXPECT_EQ(ReadFile(Record().GetXferFullFilePath()).size(), device->ListingText().size());
        }
        TearDown();
    }
}

TEST_F(DirectoryFetch, Refusals) {
    KyTferClient client;
    EXPECT_EQ(Outcome(client.GetDirectoryFromDevRequest()),
              "failed: LOGIC ERROR - KyTferRespClient not initialized");
    Start();
    device->FailPoint(SimAccess::WRITE, sim_point::CLIENT_FILE_REQ, 5);
    const Status refused = engine->GetDirectoryFromDevRequest();
    EXPECT_EQ(Outcome(refused), "failed: Failed to send directory request to server. Status=5");
    EXPECT_EQ(refused.GetReqType(), Status::TFER_REQ_DIRECTORY);
    EXPECT_EQ(Record().GetReqType(), Status::TFER_REQ_NONE);
    EXPECT_EQ(Outcome(Record()), "none");
    device->ClearFaults();
    Request("missing", 5);
    device->ClearCalls();
    EXPECT_EQ(Outcome(engine->GetDirectoryFromDevRequest()), "failed: Transaction already in progress");
    EXPECT_TRUE(Written().empty());
}

TEST_F(DirectoryFetch, WithoutAMonitorOnlyTheWorkerEndsIt) {
    Start();
    systemfaults::FailNextThread(11, 1);
    device->PauseDelivery();
    EXPECT_EQ(Outcome(engine->GetDirectoryFromDevRequest()), kRequested);
    device->ResumeDelivery();
    EXPECT_EQ(log.Count(3, "Error creating directory monitor thread.  error=11"), 1);
    ASSERT_TRUE(WaitUntil([&] { return Outcome(Record()) == kFetched; }) && WaitUntilQuiet());
}

/// Between the time-out step and the final step, which are two: what the final step finds.
TEST_F(DirectoryFetch, FinalStepOverwritesNothingThatCameInBetween) {
    enum class Between { NOTHING, FETCH, PUSH, WORKER };
    for (const Between between : {Between::NOTHING, Between::FETCH, Between::PUSH, Between::WORKER}) {
        SCOPED_TRACE(static_cast<int>(between));
        SetUp();
        Start();
        device->SetFault(SimOperation::DIRECTORY, Fault([](SimFault& f) { f.answer = SimAnswer::SILENT; }));
        LogGates logGates({"startTime(",
                           "Timed out waiting for file transfer(/var/local/tal/pldserver/3/DIRREQ) bytes "
                           "transferred(0)"});
        engine->GetDirectoryFromDevRequest();
        ASSERT_TRUE(logGates[0].WaitForArrival());
        SteppedTime::Advance(61s);
        logGates[0].Open();
        ASSERT_TRUE(logGates[1].WaitForArrival());
        EXPECT_EQ(Outcome(Record()), "failed: File transfer timed out");
        if (between == Between::FETCH) engine->GetFileFromDevRequest("missing", 5);
        if (between == Between::PUSH) {
            WriteFile("/var/local/up", "x");
            device->SetFault(SimOperation::PUSH, Fault([](SimFault& f) { f.stuck = true; }));
            EXPECT_EQ(Outcome(engine->PutFileToDevRequest("/var/local", "up")), "in progress: In Progress");
        }
        if (between == Between::WORKER) {
            WriteFile(files / "late.txt", "");
            device->ChangeUint32(sim_point::XFER_FILE_SIZE, 0);
            device->ChangeString(sim_point::CLIENT_FILE_REQ, "late.txt");
            ASSERT_TRUE(WaitUntil([&] { return Record().GetStatus() == Status::TFER_STATUS_COMPLETE; }));
        }
        logGates.Leave();
        ASSERT_TRUE(WaitForThreads(between == Between::FETCH || between == Between::PUSH ? 1 : 0));
        const auto expected = between == Between::NOTHING  ? Status::TFER_STATUS_FAIL
                              : between == Between::WORKER ? Status::TFER_STATUS_COMPLETE
                                                           : Status::TFER_STATUS_INPROGRESS;
        EXPECT_EQ(Record().GetStatus(), expected) << Outcome(Record());
        EXPECT_TRUE(between != Between::NOTHING || Outcome(Record()) == kTimedOut);
        TearDown();
    }
}

TEST_F(DirectoryFetch, TwoListingsOfTheSameNameInARowAndAFetchAfterThem) {
    const std::string bytes = PutOnDevice("f", 100);
    Start();
    for (int i = 0; i < 2; ++i) {
        List();
        ASSERT_TRUE(WaitUntil([&] { return Outcome(Record()) == kFetched; }) && WaitUntilQuiet()) << i;
        engine->CreateDirectoryFromFile(Record().GetXferFullFilePath());
        PutOnDevice("g" + std::to_string(i), 10);
    }
    EXPECT_NE(ReadFile(std::string(kDownload) + kListing).find("g0 , g0 ,"), std::string::npos);
    Request("f", 100);
    ASSERT_TRUE(WaitUntil([&] { return Record().GetFilePath() == kDownload; }) && WaitUntilQuiet());
    EXPECT_EQ(ReadFile(std::string(kDownload) + "f"), bytes);
}

/// Listings of the engine are freed with it, and one that the map does not take at once: the leak check
/// tells.
TEST_F(DirectoryFetch, ListingsFromAnyFile) {
    KyTferClient client;
    WriteFile(files / "good", "1,1\na , b , c , 1 , 2\n");
    ASSERT_EQ(mkfifo((files / "fifo").c_str(), 0600), 0);
    for (const std::string& path :
         {files / "good", files / "good", files / "missing", files.Path(), files / "fifo"}) {
        client.CreateDirectoryFromFile(path);
    }
    EXPECT_EQ(log.Count(3, ""), 0);
    EXPECT_EQ(log.Count(7, " a b c 1 ..."), 2);
}

}  // namespace
