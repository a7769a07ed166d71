#include "fuzz/DeviceSide.h"

#include <unistd.h>

#include <fstream>

namespace {

constexpr unsigned short kOtherPoint = 1;
constexpr unsigned kFileSize = 10;

}  // namespace

std::unique_ptr<SimDevice> DeviceSide::MakeDevice(unsigned search, unsigned value) {
    std::filesystem::create_directories(kDirectory);
    for (const char* const name : {"/f", "/3"})
        std::ofstream(kDirectory + std::string(name)) << std::string(kFileSize, 'x');
    auto device = SimDevice::Builder(kDirectory)
                      .ManualDelivery(true)
                      .Modules(search < 0xFC ? 3 : 0, 2)
                      .ServerVersions(value, value)
                      .ServerMaxFileSize(value == 1 ? 1U << 30 : value)
                      .Dmp(value, value)
                      .Build();
    fuzz::Require(device != nullptr, "the device can be built");
    // Without a report, the engine does not search: the search takes most of a short conversation's time.
    if (search < 0xC0) device->FailPoint(SimAccess::REPORT_ID, sim_point::MON_AGENT_INFO, SIM_NO_POINT);
    return device;
}

DeviceSide::DeviceSide(fuzz::Input& input, SimDevice& device, FuzzProxy& proxy, KyTferClient& engine,
                       RecordCheck& check)
    : m_input(input), m_device(device), m_proxy(proxy), m_engine(engine) {
    ResetFaults();
    device.SetListener([&engine, &check](const KyValChgInfo& change) {
        if (change.pntId == sim_point::XFER_FILE_SIZE) check.SizeChanged();
        engine.DataChange(change);
    });
}

void DeviceSide::Step(unsigned step) {
    static const char* const kWords[] = {"READY", "NONE", "DIRREQ", "SUCCESS", "ERROR", "", "DIRX", "f"};
    switch (step % 16) {
        case 7:
        case 8:
            m_device.ChangeString(sim_point::CLIENT_FILE_REQ, kWords[m_input.Byte() % 8]);
            break;
        case 9: {
            const bool name = m_input.Byte() % 4 == 0;
            m_device.ChangeString(name ? sim_point::XFER_FILE_NAME : sim_point::CLIENT_FILE_REQ,
                                  Name(m_input).substr(0, 400));
            break;
        }
        case 10:
            m_device.ChangeUint32(sim_point::XFER_FILE_SIZE, m_input.Number());
            break;
        case 11:
            SetTransfers();
            break;
        case 12:
            m_device.ReleaseTransfers();
            break;
        case 13:
            Land(FuzzProxy::kLanding + m_engine.GetStatus("").GetXferFileName());
            break;
        case 14:
            FailPoints();
            break;
        case 15: {
            const bool other = m_input.Byte() % 4 == 0;
            const unsigned value = m_input.Number();
            if (other) m_device.ChangeUint32(kOtherPoint, value);
            if (!other) m_device.ChangeDmp(static_cast<unsigned short>(value), value % 3);
            break;
        }
        default:
            break;
    }
    while (m_device.DeliverPending() > 0) {
    }
}

std::string DeviceSide::Name(fuzz::Input& input) {
    static const char* const kNames[] = {"f", "EVT.LOG", "../x", "tferFiles/../../x", "sub/f", "3"};
    const unsigned form = input.Byte();
    if (form < 192) return kNames[form % 6];
    return form == 255 ? std::string(input.Number() % 5000, 'n') : input.Text(form % 16);
}

void DeviceSide::SetTransfers() {
    static constexpr SimAnswer kAnswers[] = {SimAnswer::SILENT, SimAnswer::NORMAL, SimAnswer::READY_TWICE,
                                             SimAnswer::NONE_VALUE};
    static constexpr FuzzProxy::Outcome kOutcomes[] = {
        FuzzProxy::Outcome::DEVICE, FuzzProxy::Outcome::FAILURE, FuzzProxy::Outcome::EXCEPTION,
        FuzzProxy::Outcome::EXCEPTION};
    const unsigned how = m_input.Byte();
    const unsigned size = m_input.Number() % 5000;
    SimFault fault;
    fault.answer = kAnswers[how / 32 % 4];
    fault.noFile = how % 2 == 1;
    fault.sizeDelta = static_cast<long long>(size) - kFileSize;
    fault.announceSizeDelta = how < 128 ? fault.sizeDelta : 0;
    fault.stuck = how / 2 % 4 == 1;
    fault.stuckAfterBytes = size / 2;
    SetFault(fault);
    m_proxy.SetOutcome(kOutcomes[how / 8 % 4]);
}

void DeviceSide::SetFault(const SimFault& fault) {
    for (const auto operation : {SimOperation::FETCH, SimOperation::PUSH, SimOperation::DIRECTORY})
        m_device.SetFault(operation, fault);
}

void DeviceSide::ResetFaults() {
    SimFault silent;
    silent.answer = SimAnswer::SILENT;
    SetFault(silent);
    m_proxy.SetOutcome(FuzzProxy::Outcome::DEVICE);
    m_proxy.FailPoints(0, false);
    m_device.ReleaseTransfers();
}

void DeviceSide::FailPoints() {
    const unsigned bits = m_input.Byte();
    m_proxy.FailPoints(bits, m_input.Byte() % 2 == 1);
}

/// Creates, extends or removes a landing file without a transfer.
void DeviceSide::Land(const std::string& path) {
    const unsigned size = m_input.Number() % 5000;
    if (path.find("..") != std::string::npos) return;
    if (size == 0) {
        unlink(path.c_str());
    } else {
        std::ofstream(path, std::ios::app) << std::string(size, 'z');
    }
}
