#include "simdevice/SimDevice.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <cstring>
#include <filesystem>
#include <future>
#include <optional>
#include <regex>
#include <utility>

#include "support/Eventually.h"
#include "support/SteppedTime.h"
#include "support/TempDir.h"

namespace {

constexpr unsigned short DEVICE = 3;
constexpr unsigned short CARD = 2;
constexpr unsigned short REQ = sim_point::CLIENT_FILE_REQ;
constexpr unsigned short SIZE = sim_point::XFER_FILE_SIZE;

// "point=value "
std::string Describe(const KyValChgInfo& info) {
    std::string text = std::to_string(info.pntId) + "=";
    unsigned int number = 0;
    std::memcpy(&number, info.value, info.pntId == SIZE ? 4 : 0);
    if (info.pntId == SIZE) return text + std::to_string(number) + " ";
    for (std::size_t i = 0; i < info.valLength; ++i) {
        unsigned short unit = 0;
        std::memcpy(&unit, static_cast<const char*>(info.value) + 2 * i, sizeof unit);
        text += static_cast<char>(unit);
    }
    return text + " ";
}

// Bytes of a file, nothing if it does not exist.
std::optional<std::string> Bytes(const std::string& path) {
    return std::filesystem::exists(path) ? std::optional(ReadFile(path)) : std::nullopt;
}

class SimDeviceTest : public testing::Test {
protected:
    SimDevice::Builder Builder() {
        return std::move(SimDevice::Builder(m_files.Path()).LandingDirectory(m_landing.Path()).Journal(true));
    }
    void Start(const SimDevice::Builder& builder) {
        m_device = builder.Build();
        ASSERT_NE(m_device, nullptr);
        m_device->SetListener([this](const KyValChgInfo& info) { m_reported += Describe(info); });
    }
    int Write(const std::string& text) {
        return m_device->SetMaiString(text.c_str(), DEVICE, REQ, CARD, 0, 0, 0, 0, 1000);
    }
    int Request(const std::string& text) { return Write("") + Write(text); }
    int WriteSize(unsigned int size) {
        return m_device->SetMaiUint32(size, DEVICE, SIZE, CARD, 0, 0, 0, 5000);
    }
    std::string Reported() {
        EXPECT_TRUE(m_device->WaitIdle(10000));
        return std::exchange(m_reported, "");
    }
    bool Fetch(const std::string& name) { return m_device->GetDevFile(DEVICE, "", name); }
    std::optional<std::string> Landed(const std::string& name) { return Bytes(m_landing / name); }

    TempDir m_files;
    TempDir m_landing;
    std::string m_reported;  // read only while the device is idle
    std::unique_ptr<SimDevice> m_device;
};

SimFault Faulty(void (*change)(SimFault&)) {
    SimFault fault;
    change(fault);
    return fault;
}

TEST_F(SimDeviceTest, AnswersRequests) {
    const struct {
        const char* name;
        const char* request;
        void (*change)(SimFault&);
        const char* answer;
    } rows[] = {
        {"file", "a.bin", [](SimFault&) {}, "8604=300 8602=READY "},
        {"silent", "a.bin", [](SimFault& f) { f.answer = SimAnswer::SILENT; }, ""},
        {"twice", "a.bin", [](SimFault& f) { f.answer = SimAnswer::READY_TWICE; },
         "8604=300 8602=READY 8602=READY "},
        {"no size", "a.bin", [](SimFault& f) { f.announceSize = false; }, "8602=READY "},
        {"size below 0", "a.bin", [](SimFault& f) { f.announceSizeDelta = -301; }, "8604=0 8602=READY "},
        {"late", "a.bin", [](SimFault& f) { f.delayMs = 200000; }, "8604=300 8602=READY "},
        {"outcome", "SUCCESS", [](SimFault&) {}, ""},
        {"directory", "DIRREQ", [](SimFault&) {}, "8604=52 8602=listing.txt "},
        {"directory, NONE", "DIRREQ", [](SimFault& f) { f.answer = SimAnswer::NONE_VALUE; }, "8602=NONE "},
    };
    WriteFile(m_files / "a.bin", std::string(300, 'x'));
    Start(Builder());
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const SimFault fault = Faulty(row.change);
        m_device->SetFault(SimOperation::FETCH, fault);
        m_device->SetFault(SimOperation::DIRECTORY, fault);
        const auto before = SteppedTime::TotalSlept();
        EXPECT_EQ(Request(row.request), 0);
        EXPECT_EQ(Reported(), std::string("8602= 8602=") + row.request + " " + row.answer);
        EXPECT_EQ(SteppedTime::TotalSlept() - before, std::chrono::milliseconds(fault.delayMs));
    }
    EXPECT_EQ(m_device->OutcomeCount("SUCCESS"), 1U);
}

TEST_F(SimDeviceTest, TransfersFiles) {
    std::string bytes;
    for (int i = 0; i < 200000; ++i)
        bytes += static_cast<char>(i * 7 / 5);
    const struct {
        const char* name;
        void (*change)(SimFault&);
        bool result;
        std::optional<std::string> arrived;
    } rows[] = {
        {"whole", [](SimFault&) {}, true, bytes},
        {"shorter", [](SimFault& f) { f.sizeDelta = -1; }, true, bytes.substr(0, 199999)},
        {"longer", [](SimFault& f) { f.sizeDelta = 70000; }, true, bytes + std::string(70000, '\0')},
        {"none", [](SimFault& f) { f.noFile = true; }, true, std::nullopt},
        {"refused", [](SimFault& f) { f.refuse = true; }, false, std::nullopt},
    };
    TempDir staging;
    WriteFile(m_files / "a.bin", bytes);
    WriteFile(staging / "fw.bin", bytes);
    const auto push = [&](const std::string& xferName) {
        return m_device->PutDevFile(DEVICE, staging.Path() + "/", "fw.bin", xferName);
    };
    Start(Builder());
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        m_device->SetFault(SimOperation::FETCH, Faulty(row.change));
        m_device->SetFault(SimOperation::PUSH, Faulty(row.change));
        EXPECT_EQ(Fetch("a.bin"), row.result);
        EXPECT_TRUE(Landed("a.bin") == row.arrived);
        EXPECT_EQ(push("3-00001"), row.result);
        EXPECT_TRUE(Bytes(m_files / "3-00001") == row.arrived);
        std::filesystem::remove(m_landing / "a.bin");
        std::filesystem::remove(m_files / "3-00001");
    }
    m_device->ClearFaults();
    m_device->SetFault(SimOperation::FETCH, Faulty([](SimFault& f) { f.garbage = true; }));
    EXPECT_TRUE(Fetch("a.bin"));
    EXPECT_TRUE(Landed("a.bin")->size() == bytes.size() && Landed("a.bin") != bytes);
    for (const char* name : {"", "..", "../a.bin", ".hidden"})
        EXPECT_FALSE(Fetch(name) || push(name)) << name;
}

TEST_F(SimDeviceTest, ListsItsFiles) {
    for (const char* name : {"a b.log", "a_b.log", "READY", "listing.txt", ".hidden"})
        WriteFile(m_files / name, name);
    Start(Builder());
    Request("DIRREQ");
    const std::string text = std::regex_replace(m_device->ListingText(), std::regex("[0-9]{19}"), "time");
    EXPECT_EQ(text,
              "1,4\nREADY , READY~2 , FILE , 5 , time\na_b.log , a_b.log~2 , LOG , 7 , time\n"
              "a_b.log , a_b.log , LOG , 7 , time\nlisting.txt , listing.txt , TXT , 11 , time\n");
    EXPECT_TRUE(Fetch("a_b.log~2") && Landed("a_b.log~2") == "a b.log");
    EXPECT_TRUE(Fetch("listing~2.txt") && Landed("listing~2.txt") == m_device->ListingText());
}

TEST_F(SimDeviceTest, PointsFailAndAreSlowOnRequest) {
    Start(Builder());
    m_device->FailPoint(SimAccess::WRITE, SIZE, 55, 2, 1);
    m_device->SlowPoint(SimAccess::WRITE, SIZE, 1500);
    EXPECT_EQ((std::vector<int>{WriteSize(1), WriteSize(2), WriteSize(3), WriteSize(4)}),
              (std::vector<int>{0, 55, 55, 0}));
    EXPECT_EQ(Reported(), "8604=1 8604=4 ");
    EXPECT_EQ(SteppedTime::TotalSlept(), std::chrono::seconds(6));
}

TEST_F(SimDeviceTest, AnswersBeforeTheWriteReturnsOnRequest) {
    WriteFile(m_files / "a.bin", "x");
    Start(Builder());
    std::promise<void> goOn;
    m_device->SetListener([&, opened = goOn.get_future().share()](const KyValChgInfo& info) {
        opened.wait();
        m_reported += Describe(info);
    });
    EXPECT_EQ(Request("a.bin"), 0);  // hangs if it waits for the listener
    goOn.set_value();
    EXPECT_EQ(Reported(), "8602= 8602=a.bin 8604=1 8602=READY ");
    m_device->SetFault(SimOperation::FETCH, Faulty([](SimFault& f) { f.answerBeforeReturn = true; }));
    Request("a.bin");
    EXPECT_EQ(m_reported, "8602= 8602=a.bin 8604=1 8602=READY ");
}

TEST_F(SimDeviceTest, DeliversByHand) {
    Start(Builder().ManualDelivery(true));
    pollfd descriptor = {m_device->EventFd(), POLLIN, 0};
    WriteSize(1);
    EXPECT_EQ(poll(&descriptor, 1, 0), 1);
    m_device->PauseDelivery();
    EXPECT_EQ(poll(&descriptor, 1, 0), 0);
    m_device->ResumeDelivery();
    EXPECT_EQ(m_device->DeliverPending(), 1U);
    EXPECT_EQ(Reported(), "8604=1 ");
}

TEST_F(SimDeviceTest, AbortEndsEveryWait) {
    WriteFile(m_files / "a.bin", std::string(1000, 'x'));
    const struct {
        const char* name;
        void (*change)(SimFault&);
        std::uint64_t rate;
        std::size_t landed;
    } rows[] = {
        {"stuck at the begin", [](SimFault& f) { f.stuck = true; }, 0, 0},
        {"stuck half way", [](SimFault& f) { f.stuck = true, f.stuckAfterBytes = 500; }, 0, 500},
        {"on a slow line", [](SimFault&) {}, 100, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SteppedTime::Hold();
        Start(Builder().LineRate(row.rate));
        m_device->SetFault(SimOperation::FETCH, Faulty(row.change));
        auto transfer = std::async(std::launch::async, [&] { return Fetch("a.bin"); });
        EXPECT_TRUE(WaitUntil([&] { return Landed("a.bin").value_or("").size() == row.landed; }));
        m_device->Abort();
        SteppedTime::Release();
        EXPECT_FALSE(transfer.get());
        std::filesystem::remove(m_landing / "a.bin");
    }
    EXPECT_EQ(Request("a.bin"), 0);
    EXPECT_EQ(Reported(), "8602= 8602=a.bin ");
}

}  // namespace
