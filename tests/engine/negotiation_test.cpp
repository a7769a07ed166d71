#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>
#include <thread>

#include "engine/EngineFixture.h"
#include "simdevice/SimPoints.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr char kDmpSupported[] = "/var/tmp/dmp/dmp_supported";
constexpr char kUsbForceFs[] = "/var/tmp/dmp/usb_force_fs";

class Negotiation : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        fs::create_directories("/var/tmp/dmp");
    }
};

TEST_F(Negotiation, WritesTheCardsSideInOrder) {
    WriteFile(kDmpSupported, "");
    Build();
    ASSERT_EQ(engine->Init(3, proxy.get()), 0);
    EXPECT_EQ(Written(),
              (std::vector<std::string>{"8598=1", "8599=1", "8601=307200", "8604=0", "8602=", "8602=NONE"}));
    EXPECT_TRUE(engine->IsTferProtocolSupported());
    EXPECT_FALSE(fs::exists(kDmpSupported));
    EXPECT_EQ(KyTferClient::GetHmiDownloadDirectory(), kDownload);
    EXPECT_EQ(KyTferClient::GetCardReceiveFileDirectory(), kLanding);
    for (const SimCall& call : device->Calls()) {
        EXPECT_EQ(call.device, 3);
        if (call.operation == SimCallKind::SET_STRING) {
            EXPECT_EQ(call.timeout, 1000U);
        }
        if (call.operation == SimCallKind::SET_UINT32) {
            EXPECT_EQ(call.timeout, 5000U);
            EXPECT_EQ(call.mmIdx, 2);
        }
    }
    for (const std::string directory : {kDownload, "/var/local/tal/pldserver/3/3/"}) {
        EXPECT_EQ(fs::status(directory).permissions(), fs::perms(0777)) << directory;
    }
}

TEST_F(Negotiation, OneStepFails) {
    const struct {
        SimAccess access;
        unsigned short point;
        int result;
        bool supported;
        const char* logged;
    } rows[] = {
        {SimAccess::READ, 8597, 0, false, "Could not get server max version. status(7)"},
        {SimAccess::READ, 8600, 0, true, "Could not get server max file size. status(7)"},
        {SimAccess::WRITE, 8598, 0, true, "Could not set client min version. status(7)"},
        {SimAccess::WRITE, 8599, 0, true, "Could not set client max version. status(7)"},
        {SimAccess::WRITE, 8601, 0, true, "Could not set client max file size. status(7)"},
        {SimAccess::WRITE, 8604, 7, true, "Could not set client max file size. status(7)"},
        {SimAccess::WRITE, 8602, 0, true,
         "Could not set string(NONE) pntId(8602) mmIdx(2) idx(0) uom(0) norm(0) "
         "timeout(1000) on device(3). Status(7)"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.logged + std::to_string(row.point));
        Build();
        device->FailPoint(row.access, row.point, 7);
        const int before = log.Count(3, "");
        const int logged = log.Count(3, row.logged);
        EXPECT_EQ(engine->Init(3, proxy.get()), row.result);
        EXPECT_EQ(engine->IsTferProtocolSupported(), row.supported);
        EXPECT_EQ(log.Count(3, ""), before + 1);
        EXPECT_EQ(log.Count(3, row.logged), logged + 1);
        TearDown();
    }
}

TEST_F(Negotiation, UsbProbe) {
    const struct {
        const char* name;
        unsigned int dmp, speed;
        unsigned short failing;
        int result;
        bool dmpFile, fsFile;
        const char* logged;
    } rows[] = {
        {"full speed", 1, 2, 0, 0, true, true, "Full Speed (12 Mbit/s) or lower."},
        {"high speed", 1, 3, 0, 0, true, false, "High Speed (480 Mbit/s) or greater."},
        {"not supported", 0, 3, 0, 0, false, true, "Server explicitly indicates DMP is NOT supported."},
        {"odd flag", 2, 3, 0, 0, false, true, "Server explicitly indicates DMP is NOT supported."},
        {"no flag", 1, 3, 8631, 7, false, true,
         "Could not get server DMP support flag (status=7). USB transport not supported."},
        {"no speed", 1, 3, 8632, 7, false, true,
         "Could not get server Max USB Speed (status=7). USB transport not supported."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        WriteFile(kDmpSupported, "");
        WriteFile(kUsbForceFs, "");
        Device().Transport(SimDevice::USB_ONLY).Dmp(row.dmp, row.speed);
        Build();
        if (row.failing != 0) device->FailPoint(SimAccess::READ, row.failing, 7);
        const int logged = log.Count(5, row.logged);
        EXPECT_EQ(engine->Init(3, proxy.get()), row.result);
        EXPECT_EQ(fs::exists(kDmpSupported), row.dmpFile);
        EXPECT_EQ(fs::exists(kUsbForceFs), row.fsFile);
        EXPECT_EQ(log.Count(5, row.logged), logged + 1);
        EXPECT_FALSE(engine->IsTferProtocolSupported());
        EXPECT_EQ(Written(), std::vector<std::string>{}) << "USB writes no point";
        TearDown();
    }
    EXPECT_EQ(log.Count(3, ""), 0);
}

TEST_F(Negotiation, FlagFileFailuresAreLoggedAndNothingElse) {
    KyTferClient client;
    client.SetDmpSupported(false);
    EXPECT_EQ(log.Count(3, ""), 0) << "an absent file is no error";
    fs::create_directories(kDmpSupported);
    client.SetDmpSupported(false);
    EXPECT_EQ(log.Count(3, "Error deleting '/var/tmp/dmp/dmp_supported' (21: Is a directory)"), 1);
    client.SetDmpSupported(true);
    EXPECT_EQ(log.Count(3, "Error creating '/var/tmp/dmp/dmp_supported' (21: Is a directory)"), 1);

    fs::remove(kDmpSupported);
    WriteFile(files / "precious", "data");
    fs::create_symlink(files / "precious", kDmpSupported);
    client.SetDmpSupported(true);
    EXPECT_EQ(ReadFile(files / "precious"), "data") << "a planted link is not followed";
    fs::remove(kDmpSupported);
    ASSERT_EQ(mkfifo(kDmpSupported, 0666), 0);
    client.SetDmpSupported(true);  // must not wait for a reader
}

TEST_F(Negotiation, NoProxyRunsThroughAndFails) {
    KyTferClient client;
    EXPECT_NE(client.Init(3, nullptr), 0);
    EXPECT_EQ(SteppedTime::TotalSlept(), 0s);
    EXPECT_EQ(Outcome(client.GetFileFromDevRequest("f", 1)),
              "failed: LOGIC ERROR - KyTferRespClient not initialized");
    EXPECT_NE(client.MaiStringSend("x", 8602), 0);
    std::string value = "kept";
    EXPECT_NE(client.MaiStringGet(value, 8602), 0);
    EXPECT_EQ(value, "kept");
    EXPECT_EQ(Outcome(client.GetStatus("")), "none");
}

TEST_F(Negotiation, MutexThatCouldNotBeCreatedIsLoggedByInit) {
    systemfaults::FailNextMutex(12, 1);
    Build();
    EXPECT_EQ(log.Count(3, ""), 0);
    EXPECT_EQ(engine->Init(3, proxy.get()), 0);
    EXPECT_EQ(log.Count(3, "error initializing request mutex. error=12"), 1);
    EXPECT_EQ(Outcome(Record()), "none");
}

class ModuleSearch : public EngineTest {
protected:
    std::vector<unsigned short> ReadIndexes() const {
        std::vector<unsigned short> indexes;
        for (const SimCall& call : device->Calls()) {
            if (call.operation == SimCallKind::GET_STRING) indexes.push_back(call.mmIdx);
        }
        return indexes;
    }
};

TEST_F(ModuleSearch, MismatchOnTheFourthReadMovesOn) {
    Build();
    int reads = 0;
    proxy->onGetString = [&](std::string& value) {
        ++reads;
        if (reads == 5) value += "x";                                 // index 2, fourth read
        if (reads == 7) throw std::runtime_error("a proxy's fault");  // index 1 of the next pass
    };
    EXPECT_EQ(engine->Init(3, proxy.get()), 0);
    EXPECT_EQ(ReadIndexes(), (std::vector<unsigned short>{1, 2, 2, 2, 2, 3, 1, 2, 2, 2, 2}));
    EXPECT_EQ(SteppedTime::TotalSlept(), 6s + 2s + 8s);
}

TEST_F(ModuleSearch, StopEndsASearchThatNeverMatchesAndInitRunsOn) {
    int ended = 0;
    for (const unsigned short modules : std::initializer_list<unsigned short>{0, 1, 65535}) {
        SCOPED_TRACE(modules);
        SteppedTime::Reset();
        Device().Modules(modules, 0);
        Build();
        int sleeps = 0;
        SteppedTime::OnSleep([&] {
            if (++sleeps == 20) engine->Stop();
        });
        engine->Init(3, proxy.get());
        EXPECT_LT(SteppedTime::TotalSlept(), 6s);
        EXPECT_EQ(log.Count(5, "that we will use: 0"), ++ended);
        EXPECT_EQ(device->GetString(sim_point::CLIENT_FILE_REQ), "NONE") << "negotiated without an index";
        SteppedTime::OnSleep({});
        TearDown();
    }
}

TEST_F(ModuleSearch, StopFromAnotherThreadReturnsAfterInitAndItsProxyCalls) {
    Device().Modules(3, 0);
    Build();
    std::thread init([this] { engine->Init(3, proxy.get()); });
    ASSERT_TRUE(WaitUntil([this] { return !ReadIndexes().empty(); }));
    engine->Stop();
    const size_t calls = device->Calls().size();
    EXPECT_EQ(log.Count(5, "that we will use: 0"), 1) << "Init has come to its end";
    init.join();
    EXPECT_EQ(Outcome(engine->GetFileFromDevRequest("f", 1)),
              "failed: LOGIC ERROR - KyTferRespClient not initialized");
    engine->Stop();
    EXPECT_EQ(device->Calls().size(), calls);
}

TEST(SleepUnlessStopped, LooksAtTheFlagBeforeAndAfterEveryQuarter) {
    std::atomic<bool> stop{false};
    EXPECT_TRUE(KyTferClient::SleepUnlessStopped(0, stop));
    EXPECT_TRUE(KyTferClient::SleepUnlessStopped(3, stop));
    EXPECT_EQ(SteppedTime::TotalSlept(), 3s);
    int sleeps = 0;
    SteppedTime::OnSleep([&] { stop = ++sleeps == 3; });
    EXPECT_FALSE(KyTferClient::SleepUnlessStopped(1000000, stop));
    EXPECT_EQ(sleeps, 3);
    EXPECT_FALSE(KyTferClient::SleepUnlessStopped(0, stop));
    EXPECT_EQ(sleeps, 3);
}

TEST(MaiString, SecondWriteDecides) {
    TempDir files;
    const auto device = SimDevice::Builder(files.Path()).Journal(true).Build();
    KyTferClient engine;
    LogCapture log;
    engine.Init(3, device.get());
    const struct {
        const char* name;
        int skip, times, status;
    } rows[] = {{"both succeed", 0, 0, 0}, {"first fails", 0, 1, 0}, {"second fails", 1, 1, 5}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        device->ClearFaults();
        device->ClearCalls();
        const int errors = log.Count(3, "");
        if (row.times > 0) {
            device->FailPoint(SimAccess::WRITE, sim_point::XFER_FILE_NAME, 5, row.times, row.skip);
        }
        EXPECT_EQ(engine.MaiStringSend("X", sim_point::XFER_FILE_NAME), row.status);
        ASSERT_EQ(device->Calls().size(), 2U);
        EXPECT_EQ(device->Calls()[0].value, "");
        EXPECT_EQ(device->Calls()[1].value, "X");
        EXPECT_EQ(log.Count(3, "") - errors, row.status == 0 ? 0 : 1);
    }
    std::string value;
    EXPECT_EQ(engine.MaiStringGet(value, sim_point::CLIENT_FILE_REQ), 0);
    EXPECT_EQ(value, "NONE");
}

}  // namespace
