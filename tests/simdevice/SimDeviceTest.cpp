// What the tests of the engine take for granted about the device; that it transfers at all, they show themselves.
#include "simdevice/SimDevice.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <future>
#include <regex>
#include <tuple>
#include <utility>

#include "support/Eventually.h"
#include "support/SteppedTime.h"
#include "support/TempDir.h"

namespace {

constexpr unsigned short DEVICE = 3;
constexpr unsigned short CARD = 2;
constexpr unsigned short SIZE = sim_point::XFER_FILE_SIZE;

// "word " for the request point, "number " for the size.
std::string Describe(const KyValChgInfo& info) {
    unsigned int number = 0;
    std::memcpy(&number, info.value, info.pntId == SIZE ? 4 : 0);
    std::string text = info.pntId == SIZE ? std::to_string(number) : "";
    for (std::size_t i = 0; i < info.valLength; ++i) {
        unsigned short unit = 0;  // in the processor's byte order
        std::memcpy(&unit, static_cast<const char*>(info.value) + 2 * i, sizeof unit);
        text += static_cast<char>(unit);
    }
    return text + " ";
}

// Bytes of a file, "none" if it does not exist.
std::string Bytes(const std::string& path) {
    return std::filesystem::exists(path) ? ReadFile(path) : "none";
}

class SimDeviceTest : public testing::Test {
protected:
    SimDeviceTest() { WriteFile(m_files / "a.bin", std::string(300, 'x')); }

    void Start(bool manual = false, std::uint64_t rate = 0) {
        SimDevice::Builder builder(m_files.Path());
        m_device = builder.LandingDirectory(m_landing.Path()).ManualDelivery(manual).LineRate(rate).Build();
        ASSERT_NE(m_device, nullptr);
        m_device->SetListener([this](const KyValChgInfo& info) { m_reported += Describe(info); });
    }
    void Write(const std::string& request) {
        const unsigned short point = sim_point::CLIENT_FILE_REQ;
        EXPECT_EQ(m_device->SetMaiString(request.c_str(), DEVICE, point, CARD, 0, 0, 0, 0, 1000), 0);
    }
    /// @return what the device reports about the request
    std::string Request(const std::string& request) {
        Write(request);
        EXPECT_TRUE(m_device->WaitIdle(10000));
        return std::exchange(m_reported, "");
    }
    /// Makes all that is transferred go wrong in one way. @return the fault
    SimFault Misbehave(void (*change)(SimFault&)) {
        SimFault fault;
        change(fault);
        for (const SimOperation operation :
             {SimOperation::FETCH, SimOperation::PUSH, SimOperation::DIRECTORY})
            m_device->SetFault(operation, fault);
        return fault;
    }
    bool Fetch(const std::string& name) { return m_device->GetDevFile(DEVICE, "", name); }
    bool Push(const std::string& xferName) {
        return m_device->PutDevFile(DEVICE, m_files.Path() + "/", "a.bin", xferName);
    }
    std::string Landed(const std::string& name) { return Bytes(m_landing / name); }

    TempDir m_files;
    TempDir m_landing;
    std::string m_reported;  // read only while the device is idle
    std::unique_ptr<SimDevice> m_device;
};

TEST_F(SimDeviceTest, AnswersRequests) {
    const std::tuple<const char*, void (*)(SimFault&), const char*> rows[] = {
        {"a.bin", [](SimFault& f) { f.answer = SimAnswer::SILENT; }, "a.bin "},
        {"a.bin", [](SimFault& f) { f.answer = SimAnswer::READY_TWICE; }, "a.bin 300 READY READY "},
        {"a.bin", [](SimFault& f) { f.announceSize = false; }, "a.bin READY "},
        {"a.bin", [](SimFault& f) { f.announceSizeDelta = -301; }, "a.bin 0 READY "},
        {"a.bin", [](SimFault& f) { f.delayMs = 200000; }, "a.bin 300 READY "},
        {"DIRREQ", [](SimFault&) {}, "DIRREQ 52 listing.txt "},
        {"DIRREQ", [](SimFault& f) { f.answer = SimAnswer::NONE_VALUE; }, "DIRREQ NONE "},
    };
    Start();
    for (const auto& [request, change, reported] : rows) {
        const auto late = std::chrono::milliseconds(Misbehave(change).delayMs);
        const auto before = SteppedTime::TotalSlept();
        EXPECT_EQ(Request(request), reported);
        EXPECT_EQ(SteppedTime::TotalSlept() - before, late);
    }
    Misbehave([](SimFault& f) { f.answerBeforeReturn = true; });
    Write("a.bin");
    EXPECT_EQ(std::exchange(m_reported, ""), "a.bin 300 READY ");
    m_device->Abort();
    EXPECT_EQ(Request("a.bin"), "a.bin ");
}

TEST_F(SimDeviceTest, TransfersFiles) {
    const std::string bytes = std::string(70000, 'a') + std::string(70000, 'b');
    const std::tuple<void (*)(SimFault&), bool, std::string> rows[] = {
        {[](SimFault& f) { f.sizeDelta = -1; }, true, bytes.substr(0, 139999)},
        {[](SimFault& f) { f.sizeDelta = 70000; }, true, bytes + std::string(70000, '\0')},
        {[](SimFault& f) { f.noFile = true; }, true, "none"},
        {[](SimFault& f) { f.refuse = true; }, false, "none"},
    };
    WriteFile(m_files / "a.bin", bytes);
    Start();
    for (const auto& [change, result, arrived] : rows) {
        Misbehave(change);
        EXPECT_TRUE(Fetch("a.bin") == result && Push("3-00001") == result);
        EXPECT_TRUE(Landed("a.bin") == arrived && Bytes(m_files / "3-00001") == arrived);
        std::filesystem::remove(m_landing / "a.bin");
        std::filesystem::remove(m_files / "3-00001");
    }
    m_device->ClearFaults();
    for (const char* name : {"", "..", "/a.bin", ".hidden"})
        EXPECT_FALSE(Fetch(name) || Push(name)) << name;
}

TEST_F(SimDeviceTest, ListsItsFiles) {
    for (const char* name : {"a b.log", "a_b.log", "READY", "listing.txt", ".hidden"})
        WriteFile(m_files / name, name);
    Start();
    Request("DIRREQ");
    const std::string text = std::regex_replace(m_device->ListingText(), std::regex("[0-9]{19}"), "time");
    EXPECT_EQ(text,
              "1,5\nREADY , READY~2 , FILE , 5 , time\na_b.log , a_b.log~2 , LOG , 7 , time\n"
              "a.bin , a.bin , BIN , 300 , time\na_b.log , a_b.log , LOG , 7 , time\n"
              "listing.txt , listing.txt , TXT , 11 , time\n");
    EXPECT_TRUE(Fetch("a_b.log~2") && Landed("a_b.log~2") == "a b.log");
    EXPECT_TRUE(Fetch("listing~2.txt") && Landed("listing~2.txt") == m_device->ListingText());
}

TEST_F(SimDeviceTest, PointsFailAndAreSlowAndWaitOnRequest) {
    Start(true);
    m_device->FailPoint(SimAccess::WRITE, SIZE, 55, 2, 1);
    m_device->SlowPoint(SimAccess::WRITE, SIZE, 1500);
    for (const int status : {0, 55, 55, 0})
        EXPECT_EQ(m_device->SetMaiUint32(1, DEVICE, SIZE, CARD, 0, 0, 0, 5000), status);
    EXPECT_EQ(SteppedTime::TotalSlept(), std::chrono::seconds(6));
    m_device->PauseDelivery();
    EXPECT_EQ(m_device->DeliverPending(), 0U);
    m_device->ResumeDelivery();
    EXPECT_EQ(m_device->DeliverPending(), 2U);
    EXPECT_EQ(m_reported, "1 1 ");
}

TEST_F(SimDeviceTest, AbortEndsEveryWait) {
    const std::tuple<void (*)(SimFault&), std::uint64_t, std::string, bool> rows[] = {
        {[](SimFault& f) { f.stuck = true; }, 0, "none", true},
        {[](SimFault& f) { f.stuck = true, f.stuckAfterBytes = 3; }, 0, "xxx", true},
        {[](SimFault&) {}, 100, "x", true},
        {[](SimFault& f) { f.stuck = true, f.stuckAfterBytes = 3; }, 0, "xxx", false},
        {[](SimFault&) {}, 100, "x", false},
    };
    for (const auto& [change, rate, landed, forGood] : rows) {
        SteppedTime::Hold();
        Start(false, rate);
        Misbehave(change);
        auto transfer = std::async(std::launch::async, [&] { return Fetch("a.bin"); });
        EXPECT_TRUE(WaitUntil([&, landed = landed] { return Landed("a.bin") == landed; })) << landed;
        forGood ? m_device->Abort() : m_device->AbortTransfer(DEVICE);
        SteppedTime::Release();
        EXPECT_FALSE(transfer.get());
        EXPECT_EQ(Landed("a.bin"), landed);
        m_device->ClearFaults();
        m_device->SetLineRate(0);
        EXPECT_EQ(Fetch("a.bin"), !forGood);
        std::filesystem::remove(m_landing / "a.bin");
    }
}

}  // namespace
