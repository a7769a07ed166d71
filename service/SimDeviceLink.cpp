#include "service/SimDeviceLink.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/KyDlog.h"
#include "simdevice/SimFaults.h"

namespace {

using FaultSetter = void (*)(SimFault& fault, long long value);

struct FaultKind {
    const char* name;
    bool takesValue;
    FaultSetter set;
};

const FaultKind kFaultKinds[] = {
    {"silent", false, [](SimFault& fault, long long) { fault.answer = SimAnswer::SILENT; }},
    {"none", false, [](SimFault& fault, long long) { fault.answer = SimAnswer::NONE_VALUE; }},
    {"twice", false, [](SimFault& fault, long long) { fault.answer = SimAnswer::READY_TWICE; }},
    {"late", true, [](SimFault& fault, long long ms) { fault.delayMs = static_cast<unsigned int>(ms); }},
    {"size", true, [](SimFault& fault, long long bytes) { fault.sizeDelta = bytes; }},
    {"announce", true, [](SimFault& fault, long long bytes) { fault.announceSizeDelta = bytes; }},
    {"nofile", false, [](SimFault& fault, long long) { fault.noFile = true; }},
    {"garbage", false, [](SimFault& fault, long long) { fault.garbage = true; }},
    {"refuse", false, [](SimFault& fault, long long) { fault.refuse = true; }},
    {"stuck", false, [](SimFault& fault, long long) { fault.stuck = true; }},
};

SimOperation ParseOperation(const std::string& text) {
    if (text == "fetch") return SimOperation::FETCH;
    if (text == "push") return SimOperation::PUSH;
    if (text == "directory") return SimOperation::DIRECTORY;
    throw CLI::ValidationError("--fault", "'" + text + "' is none of fetch, push and directory");
}

bool ParseNumber(const std::string& text, long long& number) {
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end;
}

/// The options of tfersvc for a simulated device, the only kind of device on a host.
class SimDeviceOptions : public DeviceOptions {
public:
    void AddTo(CLI::App& app) override;
    std::unique_ptr<DeviceLink> MakeLink(unsigned short deviceId) const override;

private:
    void AddFault(const std::string& text);

    std::string m_directory;  // of the device's files
    std::uint64_t m_lineRate = 0;
    bool m_usbOnly = false;
    std::map<SimOperation, SimFault> m_faults;
};

void SimDeviceOptions::AddTo(CLI::App& app) {
    app.add_option("--simulate", m_directory, "simulate a device on the files of this directory")
        ->required()
        ->check(CLI::ExistingDirectory);
    app.add_option("--line-rate", m_lineRate,
                   "bytes per second of the simulated line; 0, the default, for no limit");
    app.add_flag("--usb", m_usbOnly, "the simulated device supports the USB transport only");
    app.add_option_function<std::vector<std::string>>(
        "--fault",
        [this](const std::vector<std::string>& faults) {
            for (const std::string& fault : faults)
                AddFault(fault);
        },
        "fault of the simulated device: fetch, push or directory, =, and silent, none, twice, late:MS, "
        "size:BYTES, announce:BYTES, nofile, garbage, refuse or stuck; may be given several times");
}

/// @param text  OPERATION=KIND or OPERATION=KIND:NUMBER
void SimDeviceOptions::AddFault(const std::string& text) {
    const size_t equals = text.find('=');
    const std::string kindText = equals == std::string::npos ? "" : text.substr(equals + 1);
    const size_t colon = kindText.find(':');
    const std::string name = kindText.substr(0, colon);
    SimFault& fault = m_faults[ParseOperation(text.substr(0, equals))];
    for (const FaultKind& kind : kFaultKinds) {
        if (name != kind.name) continue;
        long long value = 0;
        if (colon == std::string::npos ? kind.takesValue : !ParseNumber(kindText.substr(colon + 1), value))
            break;
        if (colon != std::string::npos && !kind.takesValue) break;
        return kind.set(fault, value);
    }
    throw CLI::ValidationError("--fault", "'" + text + "' is not OPERATION=KIND or OPERATION=KIND:NUMBER");
}

std::unique_ptr<DeviceLink> SimDeviceOptions::MakeLink(unsigned short deviceId) const {
    auto device = SimDevice::Builder(m_directory)
                      .DeviceId(deviceId)
                      .Transport(m_usbOnly ? SimDevice::USB_ONLY : SimDevice::SORREL_485)
                      .LineRate(m_lineRate)
                      .ManualDelivery(true)
                      .Build();
    if (!device) {
        __dlog_printfex(KY_DLOG_ERROR, "SimDeviceLink", "MakeLink", "cannot simulate a device on %s",
                        m_directory.c_str());
        return nullptr;
    }
    for (const auto& fault : m_faults)
        device->SetFault(fault.first, fault.second);
    return std::make_unique<SimDeviceLink>(std::move(device));
}

}  // namespace

std::unique_ptr<DeviceOptions> MakeDeviceOptions() {
    return std::make_unique<SimDeviceOptions>();
}
