#include <filesystem>
#include <thread>

#include "engine/EngineFixture.h"
#include "engine/Gate.h"
#include "simdevice/SimPoints.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

const char kStaged[] = "/var/local/tal/pldserver/fw.bin";

class Push : public EngineTest {
public:
    using EngineTest::device;

protected:
    void SetUp() override {
        EngineTest::SetUp();
        // Where the user's file lies: on the staging directory's file system.
        fs::create_directories("/var/local/up");
        WriteFile("/var/local/up/fw.bin", bytes);
    }

    Status Put(const std::string& name = "fw.bin") {
        return engine->PutFileToDevRequest("/var/local/up", name);
    }

    /// The transfer name that the next push will use.
    std::string NextName() {
        const std::string last = device->GetString(sim_point::XFER_FILE_NAME);
        const int number = last.empty() ? s_firstNumber : std::stoi(last.substr(2)) + 1;
        char name[16];
        snprintf(name, sizeof name, "3-%05d", number);
        return name;
    }

    const std::string bytes = std::string(5000, 'p') + "end";
    static int s_firstNumber;  ///< numbers go on through the process
};

int Push::s_firstNumber = 1;

TEST_F(Push, WholeConversation) {
    Start();
    const auto before = SteppedTime::TotalSlept();
    std::chrono::microseconds nameWritten{0};
    proxy->afterSetString = [&](const char* value) {
        if (*value != '\0') nameWritten = SteppedTime::TotalSlept();
    };
    const Status accepted = Put();
    EXPECT_EQ(Outcome(accepted), "in progress: In Progress");
    EXPECT_EQ(accepted.GetFilePath(), "/var/local/tal/pldserver/");
    EXPECT_EQ(accepted.GetOrigFileName(), "fw.bin");
    EXPECT_EQ(accepted.GetXferFileName(), "3-00001");
    EXPECT_EQ(accepted.GetBytesRequested(), bytes.size());
    EXPECT_EQ(accepted.GetReqType(), Status::TFER_REQ_NONE);
    ASSERT_TRUE(WaitUntilQuiet());
    EXPECT_EQ(nameWritten - before, 1s) << "a second after the size";
    EXPECT_EQ(Written(), (std::vector<std::string>{"8604=5003", "8603=", "8603=3-00001",
                                                   "put /var/local/tal/pldserver/ fw.bin 3-00001"}));
    EXPECT_EQ(Outcome(Record()), "complete: File Transfer Complete");
    EXPECT_EQ(ReadFile(files / "3-00001"), bytes);
    EXPECT_EQ(ReadFile(kStaged), bytes) << "the staged file stays";
    EXPECT_FALSE(fs::exists("/var/local/up/fw.bin"));
    EXPECT_EQ(log.Texts("PutFileToDevRequest"),
              (std::vector<std::string>{"stage file to transfer - move(/var/local/up/fw.bin) --> "
                                        "(/var/local/tal/pldserver/fw.bin) was successful",
                                        "Write file size to server(5003)"}));
    EXPECT_EQ(log.Texts("PutFileToDevice"),
              (std::vector<std::string>{"PLD Transfer Start orig file(fw.bin) xfer file(3-00001)",
                                        "PLD Transfer of orig file(fw.bin) as xfer file(3-00001) complete"}));
    s_firstNumber = 2;
}

/// Each step fails in turn: what the record says, what becomes of the file, whether a number was used.
TEST_F(Push, Failures) {
    const struct {
        const char* name;
        void (*arrange)(Push& test);
        const char* file;
        std::string outcome;  ///< of the request
        std::string ended;    ///< of the record in the end
        bool numberUsed, staged;
        const char* logged;
    } rows[] = {
        {"missing file", [](Push&) {}, "missing",
         "failed: Failed to move file(/var/local/up/missing) to (/var/local/tal/pldserver/missing)", "",
         false, false, "Could not rename (/var/local/up/missing) --> (/var/local/tal/pldserver/missing)"},
        {"move", [](Push&) { systemfaults::FailRename(18, 1); }, "fw.bin",
         "failed: Failed to move file(/var/local/up/fw.bin) to (/var/local/tal/pldserver/fw.bin)", "", false,
         false, "Could not rename (/var/local/up/fw.bin) --> (/var/local/tal/pldserver/fw.bin)"},
        {"a directory", [](Push&) { fs::create_directory("/var/local/up/dir"); }, "dir",
         "failed: Failed to get size for file(/var/local/tal/pldserver/dir)", "", false, false,
         "Failed to get size for file(/var/local/tal/pldserver/dir)"},
        {"size write",
         [](Push& test) { test.device->FailPoint(SimAccess::WRITE, sim_point::XFER_FILE_SIZE, 7); }, "fw.bin",
         "failed: Request failed", "", true, false, "to managed device s1(7) s2(0)"},
        {"name write",
         [](Push& test) { test.device->FailPoint(SimAccess::WRITE, sim_point::XFER_FILE_NAME, 8); }, "fw.bin",
         "failed: Request failed", "", true, false, "to managed device s1(0) s2(8)"},
        {"device refuses",
         [](Push& test) {
             SimFault fault;
             fault.refuse = true;
             test.device->SetFault(SimOperation::PUSH, fault);
         },
         "fw.bin", "in progress: In Progress", "failed: Request failed", true, true,
         "PLD Transfer of orig file(fw.bin) as xfer file(3-"},
        {"worker's thread", [](Push&) { systemfaults::FailNextThread(11, 1); }, "fw.bin",
         "in progress: In Progress", "failed: Request failed", true, true, nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        Start();
        row.arrange(*this);
        const std::string name = NextName();
        EXPECT_EQ(Outcome(Put(row.file)), row.outcome);
        ASSERT_TRUE(WaitUntilQuiet());
        EXPECT_EQ(Outcome(Record()), row.ended.empty() ? row.outcome : row.ended);
        EXPECT_EQ(fs::exists(kStaged), row.staged);
        EXPECT_EQ(fs::exists("/var/local/up/fw.bin"), std::string(row.file) != "fw.bin") << "consumed";
        EXPECT_EQ(device->GetString(sim_point::XFER_FILE_NAME) == name || Record().GetXferFileName() == name,
                  row.numberUsed);
        if (row.numberUsed) ++s_firstNumber;
        EXPECT_EQ(row.logged == nullptr || log.Count(3, row.logged) == 1, true);
        TearDown();
    }
}

TEST_F(Push, RefusedBeforeInitWithTheFileUntouched) {
    KyTferClient client;
    EXPECT_EQ(Outcome(client.PutFileToDevRequest("/var/local/up", "fw.bin")),
              "failed: LOGIC ERROR - KyTferRespClient not initialized");
    EXPECT_EQ(ReadFile("/var/local/up/fw.bin"), bytes);
    EXPECT_EQ(Outcome(client.GetStatus("")), "none");
}

TEST_F(Push, BesideARunningFetchSharesItsRecord) {
    PutOnDevice("f", 1000);
    Gate fetchGate;
    Start();
    proxy->beforeGetFile = [&] { fetchGate.Wait(); };
    Request("f", 1000);
    ASSERT_TRUE(fetchGate.WaitForArrival());
    const Status accepted = Put();
    ++s_firstNumber;
    EXPECT_EQ(Outcome(accepted), "in progress: In Progress");
    EXPECT_EQ(accepted.GetReqType(), Status::TFER_REQ_GET_FILE);
    ASSERT_TRUE(WaitUntil([&] { return log.Count(5, "complete") > 0; }));
    EXPECT_TRUE(WaitForThreads(2)) << "a push's completion ends neither the fetch's worker nor its monitor";
    fetchGate.Open();
    ASSERT_TRUE(WaitUntilQuiet());
    EXPECT_EQ(ReadFile(std::string(kDownload) + "f").size(), 1000U);
    EXPECT_EQ(Record().GetStatus(), Status::TFER_STATUS_COMPLETE);
}

TEST_F(Push, MonitorHoldsTheRecordUpToItsLimit) {
    Start();
    std::thread monitor([this] { engine->MonitorPutFileRequest(); });
    ASSERT_TRUE(WaitUntil([&] { return log.Count(3, "NOT IMPLEMENTED - DON'T KNOW WHAT TO LOOK FOR") > 0; }));
    EXPECT_EQ(Outcome(Record()), "in progress: In Progress - No progress to report");
    SteppedTime::Advance(180s);
    monitor.join();
    EXPECT_EQ(Outcome(Record()), "failed: File transfer Failed - timeout");
    EXPECT_EQ(log.Count(7, ") Diff(180)"), 1);
}

}  // namespace
