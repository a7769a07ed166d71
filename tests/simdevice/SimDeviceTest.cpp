// The simulated device's faults, each of which the tests of the engine take for granted.
#include "simdevice/SimDevice.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <utility>

#include "support/SteppedTime.h"
#include "support/TempDir.h"

namespace {

constexpr unsigned short kDevice = 3;
constexpr SimOperation kOperations[] = {SimOperation::FETCH, SimOperation::PUSH, SimOperation::DIRECTORY};

// "word " for the request point, "number " for the size.
std::string Describe(const KyValChgInfo& info) {
    unsigned int number = 0;
    if (info.pntId == sim_point::XFER_FILE_SIZE) {
        std::memcpy(&number, info.value, sizeof number);
        return std::to_string(number) + " ";
    }
    std::string text;
    for (std::size_t i = 0; i < info.valLength; ++i) {
        unsigned short unit = 0;  // in the processor's byte order
        std::memcpy(&unit, static_cast<const char*>(info.value) + 2 * i, sizeof unit);
        text += static_cast<char>(unit);
    }
    return text + " ";
}

TEST(SimDeviceFaults, OfAnswersAndFiles) {
    const std::string bytes = std::string(70000, 'a') + std::string(70000, 'b');
    const struct {
        void (*set)(SimFault&);
        std::string answer;
        std::string arrived = "none";
        bool result = true;
    } rows[] = {
        {[](SimFault&) {}, "f 140000 READY ", bytes},
        {[](SimFault& f) { f.answer = SimAnswer::SILENT; }, "f ", bytes},
        {[](SimFault& f) { f.answer = SimAnswer::NONE_VALUE; }, "f NONE ", bytes},
        {[](SimFault& f) { f.answer = SimAnswer::READY_TWICE; }, "f 140000 READY READY ", bytes},
        {[](SimFault& f) { f.announceSize = false; }, "f READY ", bytes},
        {[](SimFault& f) { f.announceSizeDelta = -140001; }, "f 0 READY ", bytes},
        {[](SimFault& f) { f.delayMs = 200000; }, "f 140000 READY ", bytes},
        {[](SimFault& f) { f.sizeDelta = -1; }, "f 140000 READY ", bytes.substr(0, 139999)},
        {[](SimFault& f) { f.sizeDelta = 70000; }, "f 140000 READY ", bytes + std::string(70000, '\0')},
        {[](SimFault& f) { f.noFile = true; }, "f 140000 READY "},
        {[](SimFault& f) { f.refuse = true; }, "f 140000 READY ", "none", false},
    };
    const TempDir files, landing;
    WriteFile(files / "f", bytes);
    SimDevice::Builder builder(files.Path());
    const auto device = builder.LandingDirectory(landing.Path()).Build();
    std::string reported;  // read only while the device is idle
    device->SetListener([&](const KyValChgInfo& info) { reported += Describe(info); });
    for (const auto& row : rows) {
        SimFault fault;
        row.set(fault);
        for (const SimOperation operation : kOperations)
            device->SetFault(operation, fault);
        const auto before = SteppedTime::TotalSlept();
        device->SetMaiString("f", kDevice, sim_point::CLIENT_FILE_REQ, 2, 0, 0, 0, 0, 1000);
        EXPECT_TRUE(device->WaitIdle(10000));
        EXPECT_EQ(std::exchange(reported, ""), row.answer);
        EXPECT_GE(SteppedTime::TotalSlept() - before, std::chrono::milliseconds(fault.delayMs));
        EXPECT_EQ(device->GetDevFile(kDevice, "", "f"), row.result);
        EXPECT_EQ(device->PutDevFile(kDevice, files.Path() + "/", "f", "up"), row.result);
        for (const std::string& path : {landing / "f", files / "up"}) {
            const std::string arrived = std::filesystem::exists(path) ? ReadFile(path) : "none";
            EXPECT_TRUE(arrived == row.arrived) << path << " " << arrived.size();
            std::filesystem::remove(path);
        }
    }
}

}  // namespace
