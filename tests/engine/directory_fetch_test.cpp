#include <sys/stat.h>

#include "engine/EngineFixture.h"

namespace {

const char kTimedOutListing[] = "failed: File transfer Failed - timedout";

class DirectoryFetch : public EngineTest {
protected:
    Status List() {
        Status accepted = engine->GetDirectoryFromDevRequest();
        EXPECT_EQ(Outcome(accepted), "in progress: Directory listing has been requested");
        EXPECT_EQ(accepted.GetBytesTransfered(), 0U) << "nothing of the transaction before";
        return accepted;
    }

    void FetchF() {
        EXPECT_EQ(engine->GetFileFromDevRequest("f", 1000).GetStatus(), Status::TFER_STATUS_INPROGRESS);
        EXPECT_TRUE(WaitForOutcome(Fetched("f")));
    }
};

TEST_F(DirectoryFetch, Endings) {
    const Strings kSuccess = {"get listing.txt", "8602=", "8602=SUCCESS", "8604=0"};
    const Strings kError = {"get listing.txt", "8602=", "8602=ERROR", "8604=0"};
    const struct {
        const char* name;
        SimFault fault;
        bool waits;  ///< for the limit
        Strings written;
    } rows[] = {
        {"whole", {}, false, kSuccess},
        {"silent", Fault([](SimFault& f) { f.answer = SimAnswer::SILENT; }), true, {}},
        {"NONE", Fault([](SimFault& f) { f.answer = SimAnswer::NONE_VALUE; }), false, {}},
        {"wrong size announced", Fault([](SimFault& f) { f.announceSizeDelta = 7; }), true, kError},
        {"no file", Fault([](SimFault& f) { f.noFile = true; }), true, {"get listing.txt", "8604=0"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Start();
        device->SetFault(SimOperation::DIRECTORY, row.fault);
        const Status accepted = List();
        EXPECT_EQ(accepted.GetOrigFileName(), "DIRREQ");
        EXPECT_EQ(accepted.GetXferFullFilePath(), std::string(kLanding) + "DIRREQ");
        EXPECT_EQ(accepted.GetReqType(), Status::TFER_REQ_DIRECTORY);
        ASSERT_TRUE(WaitUntil([&] { return log->Count(5, ") Diff(60)") == 1; })) << "the monitor's time";
        EXPECT_EQ(WrittenAfterRequest(row.written.size()), row.written);
        const bool complete = row.written == kSuccess;
        const auto inProgress = [&] { return Record().GetStatus() == Status::TFER_STATUS_INPROGRESS; };
        EXPECT_TRUE(!row.waits || WaitUntil(inProgress)) << "the monitor waits for its limit";
        if (row.waits) SteppedTime::Advance(61s);
        EXPECT_TRUE(WaitForOutcome(complete ? Fetched("listing.txt") : kTimedOutListing))
            << Outcome(Record());
        if (!complete) continue;
        EXPECT_EQ(Record().GetXferFullFilePath(), std::string(kDownload) + "listing.txt");
        EXPECT_EQ(ReadFile(Record().GetXferFullFilePath()), device->ListingText());
    }
}

/// The monitor must not take an old file for the listing: neither before the device has named the listing nor before the
/// device has announced its size.
TEST_F(DirectoryFetch, OldFileIsNotTheListing) {
    Start();
    FetchF();
    device->SetFault(SimOperation::DIRECTORY, Fault([](SimFault& f) {
                         f.announceSize = false;
                         f.stuck = true;
                         f.delayMs = 1000;
                     }));
    WriteFile(std::string(kLanding) + "DIRREQ", bytes);
    device->ChangeUint32(8604, 1000);
    EXPECT_TRUE(device->WaitIdle(10000));
    device->PauseDelivery();
    List();
    const auto waiting = [&] { return Outcome(Record()) == kNothingYet; };
    EXPECT_TRUE(WaitUntil(waiting));
    EXPECT_FALSE(WaitUntil([&] { return !waiting(); }, 20ms)) << "the monitor polls without a pause";
    device->ChangeUint32(8604, 0);
    device->ResumeDelivery();
    EXPECT_TRUE(WaitUntil([&] { return Written().back() == "get listing.txt"; }) && device->WaitIdle(10000));
    for (const std::string& old : {std::string(), bytes}) {
        WriteFile(std::string(kLanding) + "listing.txt", old);
        EXPECT_FALSE(WaitUntil([&] { return !waiting(); }, 20ms)) << old.size();
    }
}

TEST_F(DirectoryFetch, RefusedListingLeavesTheRecordAndTheNextRequests) {
    Start();
    FetchF();
    proxy->Fail("8602=DIRREQ", -5);
    const Status refused = engine->GetDirectoryFromDevRequest();
    EXPECT_EQ(Outcome(refused), "failed: Failed to send directory request to server. Status=-5");
    EXPECT_EQ(refused.GetReqType(), Status::TFER_REQ_DIRECTORY);
    proxy->OnCall([](const std::string& call) { return call == "8602=DIRREQ" ? throw 7 : 0; });
    EXPECT_EQ(Outcome(engine->GetDirectoryFromDevRequest()),
              "failed: Failed to send directory request to server. Status=-2");
    EXPECT_EQ(Outcome(Record()), Fetched("f"));
    EXPECT_EQ(Record().GetReqType(), Status::TFER_REQ_NONE);
    proxy->Clear();
    device->ChangeString(8602, "READY");
    EXPECT_TRUE(device->WaitIdle(10000));
    EXPECT_EQ(log->Texts("DataChange").back(), "Current req type is 0");
    FetchF();
    proxy->OnCall({});
    List();
    EXPECT_TRUE(WaitForOutcome(Fetched("listing.txt")));
}

TEST_F(DirectoryFetch, NeedsNoMonitorAndNoOtherTransaction) {
    Start();
    systemfaults::FailNextThread(11);
    List();
    ASSERT_TRUE(WaitForOutcome(Fetched("listing.txt")));
    EXPECT_EQ(Errors().back(), "Error creating directory monitor thread.  error=11");
    engine->GetFileFromDevRequest("missing", 5);
    proxy->Clear();
    EXPECT_EQ(Outcome(engine->GetDirectoryFromDevRequest()), kInProgress);
    EXPECT_EQ(Written(), Strings{});
}

/// The leak check sees a listing that is not freed.
TEST_F(DirectoryFetch, ListingsFromAnyFile) {
    KyTferClient client;
    WriteFile(files / "good", "1,1\na , b , c , 1 , 2\n");
    ASSERT_EQ(mkfifo((files / "fifo").c_str(), 0600), 0);
    for (const std::string name : {"good", "good", "missing", "", "fifo"})
        client.CreateDirectoryFromFile(files / name);
    EXPECT_EQ(log->Count(3, ""), 0);
    EXPECT_EQ(log->Count(7, " a b c 1 ..."), 2);
    // Four so far. The seventeenth listing replaces the one that was read longest ago.
    for (int i = 5; i <= 16; ++i)
        client.CreateDirectoryFromFile(std::to_string(i));
    client.CreateDirectoryFromFile(files / "good");
    EXPECT_EQ(log->Count(5, "Dropped listing("), 0);
    client.CreateDirectoryFromFile("17");
    EXPECT_EQ(log->Count(5, "Dropped listing(" + (files / "missing") + ")"), 1);
    EXPECT_EQ(log->Count(5, "Dropped listing("), 1);
}

}  // namespace
