// The wrong answers of the simulated device. The tests of engine and service cover its other faults.
#include "simdevice/SimDevice.h"

#include <gtest/gtest.h>

#include <cstring>
#include <utility>

#include "support/TempDir.h"

namespace {

// A size in decimal, or the first letter of a word, with a space after it.
std::string Describe(const KyValChgInfo& info) {
    unsigned int size = 0;
    unsigned short letter = 0;  // in the processor's byte order
    std::memcpy(&size, info.value, info.pntId == sim_point::XFER_FILE_SIZE ? sizeof size : 0);
    std::memcpy(&letter, info.value, sizeof letter);
    return (info.valLength == 0 ? std::to_string(size) : std::string(1, static_cast<char>(letter))) + " ";
}

TEST(SimDevice, Answers) {
    const std::pair<void (*)(SimFault&), const char*> rows[] = {
        {[](SimFault&) {}, "f 3 R "},
        {[](SimFault& f) { f.answer = SimAnswer::READY_TWICE; }, "f 3 R R "},
        {[](SimFault& f) { f.announceSize = false; }, "f R "},
        {[](SimFault& f) { f.announceSizeDelta = -4; }, "f 0 R "},
    };
    const TempDir files;
    WriteFile(files / "f", "abc");
    const auto device = SimDevice::Builder(files.Path()).Build();
    std::string reported;  // read only while the device is idle
    device->SetListener([&](const KyValChgInfo& info) { reported += Describe(info); });
    for (const auto& [set, answer] : rows) {
        for (const bool beforeReturn : {false, true}) {
            SimFault fault;
            set(fault);
            fault.answerBeforeReturn = beforeReturn;
            device->SetFault(SimOperation::FETCH, fault);
            device->SetMaiString("f", 3, sim_point::CLIENT_FILE_REQ, 2, 0, 0, 0, 0, 1000);
            EXPECT_TRUE(beforeReturn || device->WaitIdle(10000));
            EXPECT_EQ(std::exchange(reported, ""), answer);
        }
    }
}

}  // namespace
