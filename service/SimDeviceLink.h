#ifndef SERVICE_SIMDEVICELINK_H
#define SERVICE_SIMDEVICELINK_H

#include <memory>
#include <utility>

#include "service/DeviceLink.h"
#include "simdevice/SimDevice.h"

/// The link to a simulated device.
class SimDeviceLink : public DeviceLink {
public:
    /// @param device  built with ManualDelivery
    explicit SimDeviceLink(std::unique_ptr<SimDevice> device) : m_device(std::move(device)) {}

    KyPldProxy& Proxy() override { return *m_device; }
    int ChangesDescriptor() const override { return m_device->EventFd(); }
    void Abort() override { m_device->Abort(); }

    void DeliverChanges(const ChangeReceiver& receiver) override {
        m_device->SetListener(receiver);
        while (m_device->DeliverPending() > 0) {
        }
    }

private:
    std::unique_ptr<SimDevice> m_device;
};

#endif
