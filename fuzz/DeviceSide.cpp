#include "fuzz/DeviceSide.h"

#include <unistd.h>

#include <fstream>
#include <memory>
#include <vector>

namespace {

constexpr int kRequestPoint = 8602;
constexpr int kNamePoint = 8603;
constexpr int kSizePoint = 8604;
constexpr int kDmpPoint = 8631;
constexpr int kOtherPoint = 1;

}  // namespace

void DeviceSide::Step(unsigned step) {
    static const char* const kWords[] = {"READY", "NONE", "DIRREQ", "SUCCESS", "ERROR", "", "DIRX", "f"};
    switch (step % 16) {
        case 7:
        case 8:
            return ChangeText(kRequestPoint, kWords[m_input.Byte() % 8]);
        case 9:
            return ChangeText(m_input.Byte() % 4 == 0 ? kNamePoint : kRequestPoint, Name(m_input));
        case 10:
            return ChangeNumber(kSizePoint, m_input.Number());
        case 11:
            return SetTransfer();
        case 12:
            return m_device.Release();
        case 13:
            return Land(FuzzDevice::kLanding + m_engine.GetStatus("").GetXferFileName());
        case 14:
            return FailPoints();
        case 15:
            return ChangeNumber(m_input.Byte() % 4 == 0 ? kOtherPoint : kDmpPoint, m_input.Number());
        default:
            return;
    }
}

std::string DeviceSide::Name(fuzz::Input& input) {
    static const char* const kNames[] = {"f", "EVT.LOG", "../x", "tferFiles/../../x", "sub/f", "3"};
    const unsigned form = input.Byte();
    if (form < 192) return kNames[form % 6];
    return form == 255 ? std::string(input.Number() % 5000, 'n') : input.Text(form % 16);
}

void DeviceSide::SetTransfer() {
    const unsigned how = m_input.Byte();
    FuzzDevice::Transfer transfer;
    transfer.deliver = how % 2 == 0;
    transfer.size = m_input.Number() % 5000;
    transfer.hold = how / 2 % 4 == 1;
    transfer.outcome = how / 8 % 4;
    m_device.SetTransfer(transfer);
}

void DeviceSide::FailPoints() {
    const unsigned bits = m_input.Byte();
    m_device.FailPoints(bits, m_input.Byte() % 2 == 1);
}

/// A file that comes, grows or goes without a worker.
void DeviceSide::Land(const std::string& path) {
    const unsigned size = m_input.Number() % 5000;
    if (path.find("..") != std::string::npos) return;
    if (size == 0) {
        unlink(path.c_str());
    } else {
        std::ofstream(path, std::ios::app) << std::string(size, 'z');
    }
}

/// The value lies in memory that ends with it.
void DeviceSide::ChangeText(int point, const std::string& text) {
    const std::string shortened = text.substr(0, 400);
    std::vector<unsigned short> units(shortened.begin(), shortened.end());
    if (m_input.Byte() % 8 == 7) units.push_back(0x4100);
    const auto length = static_cast<unsigned short>(units.size());
    m_engine.DataChange({point, 0, length, units.empty() ? nullptr : units.data()});
}

void DeviceSide::ChangeNumber(int point, unsigned number) {
    const auto value = std::make_unique<unsigned>(number);
    if (point == kSizePoint) m_check.SizeChanged();
    m_engine.DataChange({point, static_cast<unsigned short>(number % 3), 2, value.get()});
}
