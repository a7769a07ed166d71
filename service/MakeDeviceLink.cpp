#include "platform/KyDlog.h"
#include "service/DeviceLink.h"
#include "service/ServiceOptions.h"
#include "simdevice/SimDevice.h"

namespace {

/// The link to a simulated device, the only one there is on a host.
class SimDeviceLink : public DeviceLink {
public:
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

}  // namespace

std::unique_ptr<DeviceLink> MakeDeviceLink(const ServiceOptions& options) {
    auto device = SimDevice::Builder(options.simulatedDirectory)
                      .DeviceId(options.deviceId)
                      .Transport(options.usbOnly ? SimDevice::USB_ONLY : SimDevice::SORREL_485)
                      .LineRate(options.lineRate)
                      .ManualDelivery(true)
                      .Build();
    if (!device) {
        __dlog_printfex(KY_DLOG_ERROR, "MakeDeviceLink", "MakeDeviceLink", "cannot simulate a device on %s",
                        options.simulatedDirectory.c_str());
        return nullptr;
    }
    for (const auto& fault : options.faults)
        device->SetFault(fault.first, fault.second);
    return std::make_unique<SimDeviceLink>(std::move(device));
}
