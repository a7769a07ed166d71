#include <thread>

#include "engine/EngineFixture.h"

namespace {

const char kSource[] = "/var/local/up/fw.bin";  // on the staging directory's file system
const char kStaged[] = "/var/local/tal/pldserver/fw.bin";
const char kNotMoved[] =
    "failed: Failed to move file(/var/local/up/fw.bin) to (/var/local/tal/pldserver/fw.bin)";
const char kNoSize[] = "failed: Failed to get size for file(/var/local/tal/pldserver/fw.bin)";
const char kNotRenamed[] = "Could not rename (/var/local/up/fw.bin) --> (/var/local/tal/pldserver/fw.bin)";
const char kAccepted[] = "in progress: In Progress";
const char kFailed[] = "failed: Request failed";

class Push : public EngineTest {
protected:
    void Start() {
        EngineTest::Start();
        fs::remove_all("/var/local/up");
        fs::create_directories("/var/local/up");
        WriteFile(kSource, bytes);
    }

    Status Put() { return engine->PutFileToDevRequest("/var/local/up", "fw.bin"); }
};

TEST_F(Push, WholeConversation) {
    Start();
    SteppedTime::Reset();
    std::vector<std::chrono::microseconds> slept;
    proxy->OnCall([&](const std::string&) { return slept.push_back(SteppedTime::TotalSlept()), 0; });
    const Status accepted = Put();
    const std::string& name = accepted.GetXferFileName();
    EXPECT_TRUE(name.substr(0, 6) == "3-0000" && name.size() == 7) << name;
    EXPECT_EQ(Outcome(accepted), kAccepted);
    EXPECT_EQ(accepted.GetBytesRequested(), bytes.size());
    EXPECT_EQ(accepted.GetReqType(), Status::TFER_REQ_NONE);
    ASSERT_TRUE(WaitForOutcome("complete: File Transfer Complete"));
    EXPECT_EQ(slept, (std::vector<std::chrono::microseconds>{0s, 1s, 1s, 1s}));
    EXPECT_EQ(Written(), (Strings{"8604=1000", "8603=", "8603=" + name,
                                  "put /var/local/tal/pldserver/ fw.bin " + name}));
    EXPECT_EQ(ReadFile(files / name), bytes);
    EXPECT_EQ(ReadFile(kStaged), bytes) << "the staged file stays";
    EXPECT_FALSE(fs::exists(kSource));
}

/// Each step fails in turn. Transfer numbers are consecutive, and only a written name uses one.
TEST_F(Push, Failures) {
    const struct {
        const char* step;     ///< a call of the proxy, or another
        const char* outcome;  ///< of the request
        const char* ended;    ///< of the record
        size_t calls;
        bool staged;
        const char* logged;
    } rows[] = {
        {"move", kNotMoved, kNotMoved, 0, false, kNotRenamed},
        {"measure", kNoSize, kNoSize, 0, true, kNoSize + 8},
        {"8604*", kFailed, kFailed, 3, false, "to managed device s1(7) s2(0)"},
        {"8603*", kFailed, kFailed, 3, false, "to managed device s1(0) s2(7)"},
        {"put*", kAccepted, kFailed, 4, true, "PLD Transfer of orig file(fw.bin) as xfer file(3-"},
        {"thread", kAccepted, kFailed, 3, true, "Could not start thread(t-putDevFileWorker) error(11)"},
    };
    int last = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.step);
        Start();
        engine->GetFileFromDevRequest("f", 1000);
        ASSERT_TRUE(WaitForOutcome(Fetched("f")));
        proxy->Clear();
        proxy->Fail(row.step, 7);
        if (row.outcome == kNotMoved) systemfaults::FailNextRename(18);
        if (row.outcome == kNoSize) fs::remove(kSource), fs::create_directory(kSource);
        if (row.step == std::string("thread")) systemfaults::FailNextThread(11);
        EXPECT_EQ(Outcome(Put()), row.outcome);
        EXPECT_TRUE(WaitForOutcome(row.ended)) << Outcome(Record());
        EXPECT_EQ(fs::exists(kStaged), row.staged);
        EXPECT_FALSE(fs::exists(kSource)) << "consumed";
        EXPECT_EQ(Written().size(), row.calls);
        EXPECT_EQ(log->Count(3, row.logged), 1);
        EXPECT_EQ(Record().GetBytesTransfered(), row.calls == 0 ? 0U : 1000U);
        if (row.calls == 0) continue;
        const int number = std::stoi(Record().GetXferFileName().substr(2));
        EXPECT_TRUE(last == 0 || number == last + 1) << number;
        last = number;
    }
}

/// The point has 32 bits, so the card announces their largest value.
TEST_F(Push, FileOfMoreThan4GiB) {
    Start();
    fs::resize_file(kSource, 4294967296 + 5);
    proxy->Fail("put*", 1);
    EXPECT_EQ(Put().GetBytesRequested(), 4294967295U);
    EXPECT_EQ(Written().front(), "8604=4294967295");
    EXPECT_TRUE(WaitForOutcome(kFailed));
}

TEST_F(Push, MonitorHoldsTheRecordUpToItsLimit) {
    Start();
    std::thread monitor([this] { engine->MonitorPutFileRequest(); });
    EXPECT_TRUE(WaitForOutcome(kNothingYet));
    SteppedTime::Advance(180s);
    monitor.join();
    EXPECT_EQ(Outcome(Record()), kTimedOut);
}

TEST_F(Push, MonitorLeavesTheRecordToTheNextPush) {
    Start();
    std::thread monitor([this] { engine->MonitorPutFileRequest(); });
    EXPECT_TRUE(WaitForOutcome(kNothingYet));
    Put();
    monitor.join();
    EXPECT_TRUE(WaitForOutcome("complete: File Transfer Complete"));
}

TEST_F(Push, CancelEndsAFetchBehindThePushsRow) {
    Start();
    systemfaults::FailNextThread(11);  // no monitor writes the fetch's row again
    engine->GetFileFromDevRequest("missing", 5);
    Put();
    EXPECT_TRUE(WaitForOutcome("complete: File Transfer Complete"));
    EXPECT_EQ(Outcome(engine->GetFileFromDevRequest("f", 1000)), kInProgress);
    EXPECT_EQ(Outcome(engine->AbandonTransaction("")), "failed: File transfer cancelled");
    EXPECT_EQ(engine->GetFileFromDevRequest("f", 1000).GetStatus(), Status::TFER_STATUS_INPROGRESS);
}

}  // namespace
