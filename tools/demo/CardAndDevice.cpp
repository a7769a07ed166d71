#include "demo/CardAndDevice.h"

#include <chrono>
#include <stdexcept>
#include <thread>

namespace ky_demo {
namespace {

constexpr unsigned short s_deviceId = 3;
constexpr std::chrono::milliseconds s_lookInterval{50};

}  // namespace

CardAndDevice::CardAndDevice(const std::string& deviceDirectory)
    : m_device(SimDeviceBuilder(deviceDirectory).DeviceId(s_deviceId).Journal(true).Build()) {
    if (m_device == nullptr) throw std::runtime_error("cannot build a device of " + deviceDirectory);
}

// The device lets go of a transfer, so that the engine can stop; and it forgets the engine before that is
// gone.
CardAndDevice::~CardAndDevice() {
    m_device->Abort();
    m_engine.Stop();
    m_device->SetListener(nullptr);
}

int CardAndDevice::Bind() {
    const int status = m_engine.Init(s_deviceId, m_device.get());
    m_device->SetListener([this](const KyValChgInfo& change) { m_engine.DataChange(change); });
    Finish();  // what Init has written must not be delivered in the midst of the first transaction
    return status;
}

KyTferStatusMsg CardAndDevice::Finish(const std::function<void(const KyTferStatusMsg&)>& watch) {
    while (!Quiet()) {
        if (watch) watch(m_engine.GetStatus(""));
        std::this_thread::sleep_for(s_lookInterval);
    }
    return m_engine.GetStatus("");
}

// With all answers delivered no worker can start, and what one has written until its end is delivered then.
bool CardAndDevice::Quiet() {
    return m_device->WaitIdle(0) && !m_engine.WorkerRunning() && m_device->WaitIdle(0);
}

}  // namespace ky_demo
