#include <sys/stat.h>

#include "engine/EngineFixture.h"

namespace {

const char kRequested[] = "in progress: Directory listing has been requested";
const char kTimedOutListing[] = "failed: File transfer Failed - timedout";

class DirectoryFetch : public EngineTest {
protected:
    Status List() { return engine->GetDirectoryFromDevRequest(); }
};

TEST_F(DirectoryFetch, Endings) {
    const Strings kSuccess = {"get listing.txt", "8602=", "8602=SUCCESS", "8604=0"};
    const Strings kError = {"get listing.txt", "8602=", "8602=ERROR", "8604=0"};
    const struct {
        const char* name;
        SimFault fault;
        bool ended;  ///< without waiting for the limit
        Strings written;
    } rows[] = {
        {"whole", {}, true, kSuccess},
        {"late", Fault([](SimFault& f) { f.delayMs = 5000; }), true, kSuccess},
        {"silent", Fault([](SimFault& f) { f.answer = SimAnswer::SILENT; }), false, {}},
        {"NONE", Fault([](SimFault& f) { f.answer = SimAnswer::NONE_VALUE; }), true, {}},
        {"before the request returns", Fault([](SimFault& f) { f.answerBeforeReturn = true; }), true,
         kSuccess},
        {"wrong size announced", Fault([](SimFault& f) { f.announceSizeDelta = 7; }), false, kError},
        {"no file", Fault([](SimFault& f) { f.noFile = true; }), false, {"get listing.txt", "8604=0"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Start();
        device->SetFault(SimOperation::DIRECTORY, row.fault);
        const Status accepted = List();
        EXPECT_EQ(Outcome(accepted), kRequested);
        EXPECT_EQ(accepted.GetOrigFileName(), "DIRREQ");
        EXPECT_EQ(accepted.GetXferFullFilePath(), std::string(kLanding) + "DIRREQ");
        EXPECT_EQ(accepted.GetReqType(), Status::TFER_REQ_DIRECTORY);
        ASSERT_TRUE(WaitUntil([&] { return log->Count(5, ") Diff(60)") == 1; })) << "the monitor's time";
        EXPECT_EQ(WrittenAfterRequest(row.written.size()), row.written);
        if (!row.ended) {
            ASSERT_TRUE(WaitForThreads(1)) << "the monitor waits for its limit";
            SteppedTime::Advance(61s);
        }
        ASSERT_TRUE(WaitUntilQuiet());
        const bool complete = row.written == kSuccess;
        EXPECT_EQ(Outcome(Record()), complete ? Fetched("listing.txt") : kTimedOutListing);
        if (!complete) continue;
        EXPECT_EQ(Record().GetXferFullFilePath(), std::string(kDownload) + "listing.txt");
        EXPECT_EQ(ReadFile(Record().GetXferFullFilePath()), device->ListingText());
    }
}

TEST_F(DirectoryFetch, RefusalsAndOneWithoutAMonitor) {
    Start();
    device->FailPoint(SimAccess::WRITE, 8602, -5);
    const Status refused = engine->GetDirectoryFromDevRequest();
    EXPECT_EQ(Outcome(refused), "failed: Failed to send directory request to server. Status=-5");
    EXPECT_EQ(refused.GetReqType(), Status::TFER_REQ_DIRECTORY);
    EXPECT_EQ(Record().GetReqType(), Status::TFER_REQ_NONE);
    EXPECT_EQ(Outcome(Record()), "none: ");
    device->ClearFaults();
    systemfaults::FailNextThread(11);
    List();
    ASSERT_TRUE(WaitForOutcome(Fetched("listing.txt")) && WaitUntilQuiet());
    EXPECT_EQ(Errors().back(), "Error creating directory monitor thread.  error=11");
    engine->GetFileFromDevRequest("missing", 5);
    device->ClearCalls();
    EXPECT_EQ(Outcome(engine->GetDirectoryFromDevRequest()), kInProgress);
    EXPECT_TRUE(Written().empty());
}

/// The leak check tells whether each listing is freed, also one that the map does not take.
TEST_F(DirectoryFetch, ListingsFromAnyFile) {
    KyTferClient client;
    WriteFile(files / "good", "1,1\na , b , c , 1 , 2\n");
    ASSERT_EQ(mkfifo((files / "fifo").c_str(), 0600), 0);
    for (const std::string name : {"good", "good", "missing", "", "fifo"})
        client.CreateDirectoryFromFile(files / name);
    EXPECT_EQ(log->Count(3, ""), 0);
    EXPECT_EQ(log->Count(7, " a b c 1 ..."), 2);
    // Four so far. Of seventeen, the one goes that was asked for longest ago.
    for (int i = 5; i <= 16; ++i)
        client.CreateDirectoryFromFile(std::to_string(i));
    client.CreateDirectoryFromFile(files / "good");
    EXPECT_EQ(log->Count(5, "Dropped listing("), 0);
    client.CreateDirectoryFromFile("17");
    EXPECT_EQ(log->Count(5, "Dropped listing(" + (files / "missing") + ")"), 1);
    EXPECT_EQ(log->Count(5, "Dropped listing("), 1);
}

}  // namespace
