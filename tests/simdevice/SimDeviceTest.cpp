#include "simdevice/SimDevice.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <future>
#include <optional>
#include <set>
#include <sstream>
#include <thread>
#include <utility>

#include "support/Eventually.h"
#include "support/SteppedTime.h"
#include "support/TempDir.h"

namespace {

constexpr unsigned short DEVICE = 3;
constexpr unsigned short CARD = 2;
constexpr unsigned short REQ = sim_point::CLIENT_FILE_REQ;
constexpr unsigned short SIZE = sim_point::XFER_FILE_SIZE;

template <typename Number>
Number Load(const void* from, std::size_t index = 0) {
    Number number;
    std::memcpy(&number, static_cast<const unsigned char*>(from) + index * sizeof number, sizeof number);
    return number;
}

// "point=value ", with "@index" behind the point where the index is not the card's.
std::string Describe(const KyValChgInfo& info) {
    std::string text = std::to_string(info.pntId);
    if (info.mmIdx != CARD) text += "@" + std::to_string(info.mmIdx);
    text += "=";
    if (info.pntId == SIZE) return text + std::to_string(Load<unsigned int>(info.value)) + " ";
    if (info.pntId == sim_point::DMP_SUPPORTED)
        return text + std::to_string(Load<unsigned short>(info.value)) + " ";
    for (std::size_t i = 0; i < info.valLength; ++i)
        text += static_cast<char>(Load<unsigned short>(info.value, i));
    return text + " ";
}

// Bytes of a file, nothing if it does not exist.
std::optional<std::string> Bytes(const std::string& path) {
    if (!std::filesystem::exists(path)) return std::nullopt;
    return ReadFile(path);
}

class SimDeviceTest : public testing::Test {
protected:
    SimDevice::Builder Builder() {
        return std::move(
            SimDevice::Builder(m_files.Path()).Mac("00:11").LandingDirectory(m_landing.Path()).Journal(true));
    }
    void Start(const SimDevice::Builder& builder) {
        m_device = builder.Build();
        ASSERT_NE(m_device, nullptr);
        m_device->SetListener([this](const KyValChgInfo& info) { m_reported += Describe(info); });
    }
    int Write(const std::string& text, unsigned short pointId = REQ) {
        return m_device->SetMaiString(text.c_str(), DEVICE, pointId, CARD, 0, 0, 0, 0, 1000);
    }
    int Request(const std::string& text) { return Write("") + Write(text); }
    int WriteSize(unsigned int size) {
        return m_device->SetMaiUint32(size, DEVICE, SIZE, CARD, 0, 0, 0, 5000);
    }
    std::string Reported() {
        EXPECT_TRUE(m_device->WaitIdle(10000));
        return std::exchange(m_reported, "");
    }
    long FileCount() { return std::distance(std::filesystem::directory_iterator(m_files.Path()), {}); }
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
        {"no such file", "b.bin", [](SimFault&) {}, ""},
        {"path", "../a.bin", [](SimFault&) {}, ""},
        {"directory in the place of a file", "sub", [](SimFault&) {}, ""},
        {"silent", "a.bin", [](SimFault& f) { f.answer = SimAnswer::SILENT; }, ""},
        {"twice", "a.bin", [](SimFault& f) { f.answer = SimAnswer::READY_TWICE; },
         "8604=300 8602=READY 8602=READY "},
        {"NONE", "a.bin", [](SimFault& f) { f.answer = SimAnswer::NONE_VALUE; }, "8602=NONE "},
        {"no size", "a.bin", [](SimFault& f) { f.announceSize = false; }, "8602=READY "},
        {"size too large", "a.bin", [](SimFault& f) { f.announceSizeDelta = 5; }, "8604=305 8602=READY "},
        {"size below 0", "a.bin", [](SimFault& f) { f.announceSizeDelta = -301; }, "8604=0 8602=READY "},
        {"late", "a.bin", [](SimFault& f) { f.delayMs = 200000; }, "8604=300 8602=READY "},
        {"outcome", "SUCCESS", [](SimFault&) {}, ""},
        {"directory", "DIRREQ", [](SimFault&) {}, "8604=52 8602=listing.txt "},
        {"directory, NONE", "DIRREQ", [](SimFault& f) { f.answer = SimAnswer::NONE_VALUE; }, "8602=NONE "},
        {"directory, late", "DIRREQ", [](SimFault& f) { f.delayMs = 1; }, "8604=52 8602=listing.txt "},
    };
    WriteFile(m_files / "a.bin", std::string(300, 'x'));
    std::filesystem::create_directory(m_files / "sub");
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
    EXPECT_EQ(m_device->LastOutcome(), "SUCCESS");
    EXPECT_EQ(m_device->OutcomeCount("SUCCESS"), 1U);
    EXPECT_EQ(m_device->OutcomeCount(""), std::size(rows));
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
        {"shorter than nothing", [](SimFault& f) { f.sizeDelta = -200001; }, true, ""},
        {"longer", [](SimFault& f) { f.sizeDelta = 70000; }, true, bytes + std::string(70000, '\0')},
        {"none", [](SimFault& f) { f.noFile = true; }, true, std::nullopt},
        {"refused", [](SimFault& f) { f.refuse = true; }, false, std::nullopt},
    };
    TempDir staging;
    WriteFile(m_files / "a.bin", bytes);
    WriteFile(staging / "fw.bin", bytes);
    const auto push = [&](const std::string& name, const std::string& xferName) {
        return m_device->PutDevFile(DEVICE, staging.Path() + "/", name, xferName);
    };
    Start(Builder().ServerMaxFileSize(200000));
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        m_device->SetFault(SimOperation::FETCH, Faulty(row.change));
        m_device->SetFault(SimOperation::PUSH, Faulty(row.change));
        EXPECT_EQ(m_device->GetDevFile(DEVICE, "", "a.bin"), row.result);
        EXPECT_TRUE(Landed("a.bin") == row.arrived);
        EXPECT_EQ(push("fw.bin", "3-00001"), row.result);
        EXPECT_TRUE(Bytes(m_files / "3-00001") == row.arrived);
        EXPECT_TRUE(ReadFile(staging / "fw.bin") == bytes);
        std::filesystem::remove(m_landing / "a.bin");
        std::filesystem::remove(m_files / "3-00001");
    }
    m_device->ClearFaults();
    m_device->SetFault(SimOperation::FETCH, Faulty([](SimFault& f) { f.garbage = true; }));
    EXPECT_TRUE(m_device->GetDevFile(DEVICE, "", "a.bin"));
    EXPECT_TRUE(Landed("a.bin")->size() == bytes.size() && Landed("a.bin") != bytes);
    for (const char* name : {"", ".", "..", "../a.bin", "sub/a.bin", ".hidden"}) {
        EXPECT_FALSE(m_device->GetDevFile(DEVICE, "", name)) << name;
        EXPECT_FALSE(push("fw.bin", name)) << name;
    }
    EXPECT_FALSE(m_device->GetDevFile(DEVICE + 1, "", "a.bin"));
    EXPECT_FALSE(push("missing", "3-00002"));
    WriteFile(staging / "fw.bin", bytes + "x");
    EXPECT_FALSE(push("fw.bin", "3-00002"));
    EXPECT_EQ(FileCount(), 1);
}

TEST_F(SimDeviceTest, ListsItsFiles) {
    const timespec times[2] = {{0, UTIME_OMIT}, {1710491400, 5}};
    for (const char* name : {"b.log", "a b.log", "a_b.log", "READY", "listing.txt", ".hidden", "x."}) {
        WriteFile(m_files / name, name);
        utimensat(AT_FDCWD, (m_files / name).c_str(), times, 0);
    }
    std::filesystem::create_directory(m_files / "sub");
    ASSERT_EQ(mkfifo((m_files / "pipe").c_str(), 0600), 0);
    Start(Builder());
    Request("DIRREQ");
    const std::string stamp = " , 1710491400000000005\n";
    EXPECT_EQ(m_device->ListingText(),
              "1,6\nREADY , READY~2 , FILE , 5" + stamp + "a_b.log , a_b.log~2 , LOG , 7" + stamp +
                  "a_b.log , a_b.log , LOG , 7" + stamp + "b.log , b.log , LOG , 5" + stamp +
                  "listing.txt , listing.txt , TXT , 11" + stamp + "x. , x. , FILE , 2" + stamp);
    const std::pair<const char*, std::string> rows[] = {{"READY~2", "READY"},
                                                        {"a_b.log~2", "a b.log"},
                                                        {"a_b.log", "a_b.log"},
                                                        {"listing.txt", "listing.txt"},
                                                        {"listing~2.txt", m_device->ListingText()}};
    for (const auto& [name, bytes] : rows) {
        EXPECT_TRUE(m_device->GetDevFile(DEVICE, "", name)) << name;
        EXPECT_EQ(Landed(name), bytes) << name;
    }
    EXPECT_EQ(m_device->GetString(REQ), "listing~2.txt");

    m_device->SetFault(SimOperation::DIRECTORY, Faulty([](SimFault& f) { f.sizeDelta = -3; }));
    EXPECT_TRUE(m_device->GetDevFile(DEVICE, "", "listing~2.txt"));
    EXPECT_EQ(Landed("listing~2.txt")->size(), m_device->ListingText().size() - 3);
    EXPECT_FALSE(m_device->GetDevFile(DEVICE, "", "pipe"));
}

TEST_F(SimDeviceTest, HasItsPoints) {
    Start(Builder());
    std::unique_ptr<SimDevice> usb = Builder().Transport(SimDevice::USB_ONLY).Dmp(1, 2).Build();
    const struct {
        unsigned short pointId, mmIdx, idx;
        int status485, statusUsb;
        unsigned int value;
    } rows[] = {
        {sim_point::SERVER_MIN_VERSION, CARD, 0, SIM_OK, SIM_NO_POINT, 1},
        {sim_point::SERVER_MAX_VERSION, 0, 0, SIM_OK, SIM_NO_POINT, 1},
        {sim_point::SERVER_MAX_FILE_SIZE, CARD, 0, SIM_OK, SIM_NO_POINT, 1U << 30},
        {SIZE, CARD, 0, SIM_OK, SIM_NO_POINT, 0},
        {sim_point::MAX_USB_SPEED, CARD, 0, SIM_OK, SIM_OK, 2},
        {sim_point::MAX_USB_SPEED, CARD, 1, SIM_NO_POINT, SIM_NO_POINT, 0},
        {REQ, CARD, 0, SIM_NO_POINT, SIM_NO_POINT, 0},  // a string point
    };
    for (const auto& [point, mmIdx, idx, status485, statusUsb, value] : rows) {
        unsigned int read = 0;
        EXPECT_EQ(m_device->GetMaiUint32(read, DEVICE, point, mmIdx, idx, 0, 0), status485) << point;
        EXPECT_EQ(usb->GetMaiUint32(read, DEVICE, point, mmIdx, idx, 0, 0), statusUsb) << point;
        EXPECT_EQ(read, value) << point;
    }
    std::string mac;
    unsigned int report = 0;
    unsigned int count = 0;
    EXPECT_EQ(m_device->GetPointReportId(report, DEVICE, sim_point::MON_AGENT_INFO), SIM_OK);
    EXPECT_EQ(m_device->GetMaxModuleCount(count, DEVICE, static_cast<unsigned short>(report)), SIM_OK);
    EXPECT_EQ(count, 3U);
    for (unsigned short mmIdx = 0; mmIdx < 4; ++mmIdx)
        EXPECT_EQ(m_device->GetMaiString(mac, DEVICE, sim_point::MON_AGENT_INFO, mmIdx, 0, 0, 0, 0),
                  mmIdx == CARD ? SIM_OK : SIM_NO_POINT);
    EXPECT_EQ(mac, "00:11");
    EXPECT_EQ(m_device->SetMaiUint32(7, DEVICE, sim_point::SERVER_MAX_VERSION, CARD, 0, 0, 0, 1),
              SIM_READ_ONLY);
    EXPECT_EQ(m_device->SetMaiUint32(7, DEVICE + 1, SIZE, CARD, 0, 0, 0, 1), SIM_NO_DEVICE);
    EXPECT_EQ(Write(std::string(257, 'n'), sim_point::XFER_FILE_NAME), SIM_BAD_VALUE);
    EXPECT_EQ(Reported(), "");  // nothing was written

    m_device->FailPoint(SimAccess::WRITE, SIZE, 55, 2, 1);
    m_device->SlowPoint(SimAccess::WRITE, SIZE, 1500);
    EXPECT_EQ((std::vector<int>{WriteSize(1), WriteSize(2), WriteSize(3), WriteSize(4)}),
              (std::vector<int>{0, 55, 55, 0}));
    EXPECT_EQ(Reported(), "8604=1 8604=4 ");
    EXPECT_EQ(SteppedTime::TotalSlept(), std::chrono::seconds(6));
    m_device->FailPoint(SimAccess::WRITE, REQ, 9);
    EXPECT_EQ(Write("DIRREQ"), 9);
    EXPECT_EQ(m_device->ListingText(), "");
    EXPECT_EQ(SimDevice::Builder(m_files / "missing").Build(), nullptr);
}

TEST_F(SimDeviceTest, ReportsEveryChangeInOrder) {
    Start(Builder());
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::set<std::uintptr_t> alignments;
    const std::thread::id writer = std::this_thread::get_id();
    m_device->SetListener([&](const KyValChgInfo& info) {
        if (++inside != 1 || std::this_thread::get_id() == writer) overlapped = true;
        alignments.insert(reinterpret_cast<std::uintptr_t>(info.value) % 4);
        m_reported += Describe(info);
        std::this_thread::yield();
        --inside;
    });
    m_device->PauseDelivery();
    WriteSize(1);
    m_device->ChangeString(REQ, "gr\xFC\xDF");
    m_device->ChangeDmp(0, 1);
    m_device->ChangeDmp(2);
    EXPECT_FALSE(m_device->WaitIdle(0));
    EXPECT_EQ(m_device->GetUint32(sim_point::DMP_SUPPORTED), 2U);
    m_device->ResumeDelivery();
    EXPECT_EQ(Reported(), "8604=1 8602=gr\xFC\xDF 8631@1=0 8631=2 ");

    std::atomic<int> running{4};
    std::vector<std::thread> writers;
    for (unsigned int first = 0; first < 4000; first += 1000)
        writers.emplace_back([this, first, &running] {
            for (unsigned int i = 0; i < 200; ++i)
                WriteSize(first + i);
            --running;
        });
    while (running > 0) {
        m_device->PauseDelivery();
        EXPECT_EQ(inside, 0);
        m_device->ResumeDelivery();
    }
    for (std::thread& thread : writers)
        thread.join();
    const std::string reported = Reported();
    for (unsigned int first = 0; first < 4000; first += 1000) {
        std::size_t at = 0;
        for (unsigned int i = 0; i < 200 && at != std::string::npos; ++i)
            at = reported.find("=" + std::to_string(first + i) + " ", at);
        EXPECT_NE(at, std::string::npos) << first;
    }
    EXPECT_EQ(reported.substr(reported.rfind('=') + 1), std::to_string(m_device->GetUint32(SIZE)) + " ");
    EXPECT_FALSE(overlapped);
    EXPECT_EQ(alignments.size(), 4U);
}

TEST_F(SimDeviceTest, WritesWaitForTheListenerOnlyOnRequest) {
    WriteFile(m_files / "a.bin", "x");
    Start(Builder());
    std::promise<void> goOn;
    m_device->SetListener([&, opened = goOn.get_future().share()](const KyValChgInfo&) { opened.wait(); });
    EXPECT_EQ(Request("a.bin"), 0);  // hangs if it waits for the listener
    goOn.set_value();
    EXPECT_TRUE(m_device->WaitIdle(10000));

    std::atomic<int> calls{0};
    m_device->SetListener([&](const KyValChgInfo&) {
        if (++calls == 1) Request("a.bin");  // from inside, it waits for nothing
    });
    m_device->SetFault(SimOperation::FETCH, Faulty([](SimFault& f) { f.answerBeforeReturn = true; }));
    m_device->PauseDelivery();
    std::thread resumer([&] {
        EXPECT_TRUE(WaitUntil([&] { return m_device->Calls().size() == 4; }));
        m_device->ResumeDelivery();
    });
    Request("a.bin");
    EXPECT_EQ(calls, 8);
    resumer.join();
}

TEST_F(SimDeviceTest, DeliversByHand) {
    Start(Builder().ManualDelivery(true));
    pollfd descriptor = {m_device->EventFd(), POLLIN, 0};
    const auto readable = [&] { return poll(&descriptor, 1, 0) == 1; };
    EXPECT_FALSE(readable());
    WriteSize(1);
    WriteSize(2);
    EXPECT_TRUE(readable());
    m_device->PauseDelivery();
    EXPECT_FALSE(readable());
    EXPECT_EQ(m_device->DeliverPending(), 0U);
    m_device->ResumeDelivery();
    m_device->SetListener([&](const KyValChgInfo& info) {
        m_reported += Describe(info);
        EXPECT_EQ(m_device->DeliverPending(), 0U);
        if (info.mmIdx == CARD) m_device->ChangeDmp(1, 9);
    });
    EXPECT_EQ(m_device->DeliverPending(), 2U);
    EXPECT_TRUE(readable());
    EXPECT_EQ(m_device->DeliverPending(), 2U);
    EXPECT_FALSE(readable());
    EXPECT_EQ(Reported(), "8604=1 8604=2 8631@9=1 8631@9=1 ");
}

TEST_F(SimDeviceTest, FilesGrowAtTheLineRate) {
    WriteFile(m_files / "a.bin", std::string(100000, 'x'));
    Start(Builder().LineRate(20000));
    std::set<std::uintmax_t> sizes;
    SteppedTime::OnSleep([&] { sizes.insert(std::filesystem::file_size(m_landing / "a.bin")); });
    EXPECT_TRUE(m_device->GetDevFile(DEVICE, "", "a.bin"));
    EXPECT_EQ(SteppedTime::TotalSlept(), std::chrono::seconds(5));
    EXPECT_EQ(sizes.size(), 500U);
}

TEST_F(SimDeviceTest, AbortEndsEveryWait) {
    WriteFile(m_files / "a.bin", std::string(1000, 'x'));
    const struct {
        const char* name;
        void (*change)(SimFault&);
        std::uint64_t rate;
        bool push;
        std::optional<std::size_t> landed;
    } rows[] = {
        {"fetch stuck at the begin", [](SimFault& f) { f.stuck = true; }, 0, false, std::nullopt},
        {"fetch stuck half way", [](SimFault& f) { f.stuck = true, f.stuckAfterBytes = 500; }, 0, false, 500},
        {"fetch on a slow line", [](SimFault&) {}, 100, false, 1},
        {"push stuck half way", [](SimFault& f) { f.stuck = true, f.stuckAfterBytes = 500; }, 0, true,
         std::nullopt},
        {"push that begins late", [](SimFault& f) { f.delayMs = 1000; }, 0, true, std::nullopt},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SteppedTime::Hold();
        Start(Builder().LineRate(row.rate));
        m_device->SetFault(row.push ? SimOperation::PUSH : SimOperation::FETCH, Faulty(row.change));
        auto transfer = std::async(std::launch::async, [&] {
            return row.push ? m_device->PutDevFile(DEVICE, m_files.Path() + "/", "a.bin", "3-00001")
                            : m_device->GetDevFile(DEVICE, "", "a.bin");
        });
        const std::string landed(row.landed.value_or(0), 'x');
        EXPECT_TRUE(WaitUntil(
            [&] { return m_device->Calls().size() == 1 && Landed("a.bin").value_or("") == landed; }));
        EXPECT_FALSE(m_device->Calls()[0].finished);
        m_device->Abort();
        m_device->Abort();
        const auto slept = SteppedTime::TotalSlept();
        SteppedTime::Release();
        EXPECT_FALSE(transfer.get());
        EXPECT_LE(SteppedTime::TotalSlept() - slept, std::chrono::milliseconds(10));
        EXPECT_EQ(m_device->Calls()[0].status, SIM_ABORTED);
        EXPECT_FALSE(m_device->GetDevFile(DEVICE, "", "a.bin"));
        EXPECT_EQ(Landed("a.bin").has_value(), row.landed.has_value());
        EXPECT_EQ(FileCount(), 1);
        std::filesystem::remove(m_landing / "a.bin");
    }
    EXPECT_EQ(Request("a.bin"), 0);
    EXPECT_EQ(Reported(), "8602= 8602=a.bin ");
}

TEST_F(SimDeviceTest, AbandonsLateAnswersWhenItEnds) {
    WriteFile(m_files / "a.bin", "x");
    SteppedTime::Hold();
    Start(Builder());
    m_device->SetFault(SimOperation::FETCH, Faulty([](SimFault& f) { f.delayMs = 60000; }));
    Request("a.bin");
    Request("a.bin");
    EXPECT_TRUE(SteppedTime::WaitForSleepers(1));
    EXPECT_FALSE(m_device->WaitIdle(0));
    m_device->Abort();
    SteppedTime::Release();
    EXPECT_EQ(Reported(), "8602= 8602=a.bin 8602= 8602=a.bin ");
}

TEST_F(SimDeviceTest, KeepsAJournal) {
    Start(Builder());
    m_device->FailPoint(SimAccess::WRITE, SIZE, 4);
    WriteSize(12);
    Write("SUCCESS");
    m_device->GetDevFile(DEVICE, "", "none");
    std::ostringstream text;
    for (const SimCall& call : m_device->Calls())
        text << static_cast<int>(call.operation) << ' ' << call.pointId << ' ' << call.value << ' '
             << call.timeout << ' ' << call.device << ' ' << call.mmIdx << ' ' << call.status << '\n';
    EXPECT_EQ(text.str(), "3 8604 12 5000 3 2 4\n2 8602 SUCCESS 1000 3 2 0\n6 0 none 0 3 0 5\n");
    m_device->ClearCalls();
    EXPECT_TRUE(m_device->Calls().empty());
    Start(Builder());
    m_device->SlowPoint(SimAccess::WRITE, SIZE, 1);
    SteppedTime::OnSleep([&] {
        m_device->ClearCalls();
        Write("ERROR");
    });
    WriteSize(13);  // cleared away before it returns
    ASSERT_EQ(m_device->Calls().size(), 1U);
    EXPECT_EQ(m_device->Calls()[0].value, "ERROR");
    Start(Builder().Journal(false));
    WriteSize(1);
    EXPECT_TRUE(m_device->Calls().empty());
}

}  // namespace
