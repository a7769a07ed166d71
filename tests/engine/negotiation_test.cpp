#include <sys/stat.h>

#include <algorithm>
#include <thread>

#include "engine/EngineFixture.h"

namespace {

constexpr char kDmpSupported[] = "/var/tmp/dmp/dmp_supported";
constexpr char kStringNotSet[] =
    "Could not set string(NONE) pntId(8602) mmIdx(2) idx(0) uom(0) norm(0) timeout(1000) on device(3). "
    "Status(7)";
constexpr char kUsbForceFs[] = "/var/tmp/dmp/usb_force_fs";

using Negotiation = EngineTest;

TEST_F(Negotiation, WritesTheCardsSideInOrder) {
    WriteFile(kDmpSupported, "");
    Build();
    ASSERT_EQ(engine->Init(3, &*proxy), 0);
    EXPECT_EQ(Written(), (Strings{"8598=1", "8599=1", "8601=307200", "8604=0", "8602=", "8602=NONE"}));
    std::string request;
    EXPECT_EQ(engine->MaiStringGet(request, 8602), 0);
    EXPECT_EQ(request, "NONE");
    EXPECT_TRUE(engine->IsTferProtocolSupported());
    EXPECT_FALSE(fs::exists(kDmpSupported));
    EXPECT_EQ(KyTferClient::GetHmiDownloadDirectory(), kDownload);
    EXPECT_EQ(KyTferClient::GetCardReceiveFileDirectory(), kLanding);
    for (const std::string directory : {kDownload, "/var/local/tal/pldserver/3/3/"})
        EXPECT_EQ(fs::status(directory).permissions(), fs::perms(0777)) << directory;
}

TEST_F(Negotiation, OneStepFails) {
    const struct {
        const char* call;  ///< that fails
        int result;
        bool supported;
        Strings logged;
    } rows[] = {
        {"8597", 0, false, {"Could not get server max version. status(7)"}},
        {"8600", 0, true, {"Could not get server max file size. status(7)"}},
        {"8598*", 0, true, {"Could not set client min version. status(7)"}},
        {"8599*", 0, true, {"Could not set client max version. status(7)"}},
        {"8601*", 0, true, {"Could not set client max file size. status(7)"}},
        {"8604*", 7, true, {"Could not set client max file size. status(7)"}},
        // A text is written twice. Only the second write's status counts.
        {"8602=", 0, true, {}},
        {"8602=NONE", 0, true, {kStringNotSet}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.call);
        Build();
        proxy->Fail(row.call, 7);
        EXPECT_EQ(engine->Init(3, &*proxy), row.result);
        EXPECT_EQ(engine->IsTferProtocolSupported(), row.supported);
        EXPECT_EQ(Errors(), row.logged);
    }
}

TEST_F(Negotiation, UsbProbe) {
    const struct {
        const char* name;
        unsigned int dmp, speed;
        const char* failing;  ///< read; null for none
        int result;
        bool dmpFile, fsFile;
        const char* logged;
    } rows[] = {
        {"full speed", 1, 2, nullptr, 0, true, true, "Full Speed (12 Mbit/s) or lower."},
        {"high speed", 1, 3, nullptr, 0, true, false, "High Speed (480 Mbit/s) or greater."},
        {"not supported", 0, 3, nullptr, 0, false, true, "Server explicitly indicates DMP is NOT supported."},
        {"odd flag", 2, 3, nullptr, 0, false, true, "Server explicitly indicates DMP is NOT supported."},
        {"no flag", 1, 3, "8631", 7, false, true,
         "DMP support flag (status=7). USB transport not supported."},
        {"no speed", 1, 3, "8632", 7, false, true, "Max USB Speed (status=7). USB transport not supported."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        if (row.speed > 2) WriteFile(kDmpSupported, "");
        if (row.speed > 2) WriteFile(kUsbForceFs, "");
        Device().Transport(SimDevice::USB_ONLY).Dmp(row.dmp, row.speed);
        Build();
        if (row.failing) proxy->Fail(row.failing, 7);
        EXPECT_EQ(engine->Init(3, &*proxy), row.result);
        EXPECT_EQ(fs::exists(kDmpSupported), row.dmpFile);
        EXPECT_EQ(fs::exists(kUsbForceFs), row.fsFile);
        EXPECT_EQ(log->Count(5, row.logged), 1);
        EXPECT_EQ(log->Count(3, ""), 0);
        EXPECT_FALSE(engine->IsTferProtocolSupported());
        EXPECT_EQ(Written(), Strings{}) << "USB writes no point";
    }
}

TEST_F(Negotiation, FlagFileFailuresAreLoggedAndNothingElse) {
    KyTferClient client;
    client.SetDmpSupported(false);  // an absent file is no error
    fs::create_directories(kDmpSupported);
    client.SetDmpSupported(false);
    client.SetDmpSupported(true);
    EXPECT_EQ(Errors(), (Strings{"Error deleting '/var/tmp/dmp/dmp_supported' (21: Is a directory)",
                                 "Error creating '/var/tmp/dmp/dmp_supported' (21: Is a directory)"}));
    fs::remove(kDmpSupported);
    WriteFile(files / "precious", "data");
    fs::create_symlink(files / "precious", kDmpSupported);
    client.SetDmpSupported(true);
    EXPECT_EQ(ReadFile(files / "precious"), "data") << "a planted link is not followed";
    fs::remove(kDmpSupported);
    ASSERT_EQ(mkfifo(kDmpSupported, 0666), 0);
    client.SetDmpSupported(true);  // does not wait for a reader
}

TEST_F(Negotiation, NoProxyRunsThroughAndFails) {
    KyTferClient client;
    EXPECT_NE(client.Init(3, nullptr), 0);
    EXPECT_EQ(SteppedTime::TotalSlept(), 0s);
    WriteFile(files / "up", "kept");
    EXPECT_EQ(Outcome(client.GetFileFromDevRequest("f", 1)), kNotInitialized);
    EXPECT_EQ(Outcome(client.GetDirectoryFromDevRequest()), kNotInitialized);
    EXPECT_EQ(Outcome(client.PutFileToDevRequest(files.Path(), "up")), kNotInitialized);
    EXPECT_EQ(ReadFile(files / "up"), "kept");
    EXPECT_NE(client.MaiStringSend("x", 8602), 0);
    std::string value = "kept";
    EXPECT_NE(client.MaiStringGet(value, 8602), 0);
    EXPECT_EQ(value, "kept");
    EXPECT_EQ(Outcome(client.GetStatus("")), "none: ");
}

TEST_F(Negotiation, SearchGoesOnAfterAMismatchAndAfterAnException) {
    Build();
    const std::string address = device->GetString(6459);
    int reads = 0;
    proxy->OnCall([&](const std::string& call) {
        if (call.compare(0, 5, "6459/") != 0) return 0;
        ++reads;
        if (reads == 5) device->ChangeString(6459, "x");  // module 2, fourth read
        if (reads == 6) device->ChangeString(6459, address);
        if (reads == 7) throw 7;  // module 1 of the next pass
        return 0;
    });
    EXPECT_EQ(engine->Init(3, &*proxy), 0);
    Strings calls = proxy->Calls();
    calls.resize(11);
    EXPECT_EQ(calls, (Strings{"6459/1", "6459/2", "6459/2", "6459/2", "6459/2", "6459/3", "6459/1", "6459/2",
                              "6459/2", "6459/2", "6459/2"}));
    EXPECT_EQ(Errors(), Strings{"The device proxy has thrown an exception: unknown"});
    EXPECT_EQ(SteppedTime::TotalSlept(), 6s + 2s + 6s + 2s);
}

TEST_F(Negotiation, StopEndsASearchThatNeverMatchesAndReturnsAfterInit) {
    for (const unsigned short modules : std::initializer_list<unsigned short>{0, 1, 65535}) {
        SCOPED_TRACE(modules);
        SteppedTime::Reset();
        Device().Modules(modules, 0);
        Build();
        std::thread init([this] { engine->Init(3, &*proxy); });
        EXPECT_TRUE(WaitUntil([] { return SteppedTime::TotalSlept() > 5s; }));
        engine->Stop();
        const size_t calls = proxy->Calls().size();
        EXPECT_EQ(log->Count(5, "that we will use: 0"), 1) << "Init has come to its end";
        init.join();
        EXPECT_EQ(device->GetString(8602), "NONE") << "negotiated without an index";
        EXPECT_EQ(Outcome(engine->GetFileFromDevRequest("f", 1)), kNotInitialized);
        EXPECT_EQ(proxy->Calls().size(), calls);
    }
}

}  // namespace
