#ifndef SERVICE_DEVICELINK_H
#define SERVICE_DEVICELINK_H

#include <functional>
#include <memory>

#include "platform/KyPldProxy.h"
#include "platform/KyValChgInfo.h"

namespace CLI {
class App;
}

/// Connects the service to its device: the proxy, and the changes of the device's points. A card derives a
/// link of its own.
class DeviceLink {
public:
    using ChangeReceiver = std::function<void(const KyValChgInfo&)>;

    DeviceLink() = default;
    virtual ~DeviceLink() = default;
    DeviceLink(const DeviceLink&) = delete;
    DeviceLink& operator=(const DeviceLink&) = delete;

    /// The proxy; the link owns it. Any thread may call the proxy.
    virtual KyPldProxy& Proxy() = 0;

    /// A descriptor that is readable while changes are queued. The service passes it to poll(); the link owns
    /// it.
    virtual int ChangesDescriptor() const = 0;

    /// Passes the queued changes to `receiver`, in order, on the calling thread. Does not wait for more. One
    /// thread calls it at a time.
    virtual void DeliverChanges(const ChangeReceiver& receiver) = 0;

    /// Ends the proxy's running calls, and makes later calls fail at once. Does not wait for their end. Any thread
    /// may call Abort(), also several times.
    virtual void Abort() = 0;
};

/// The options of tfersvc that describe the device. A card may have none.
class DeviceOptions {
public:
    DeviceOptions() = default;
    virtual ~DeviceOptions() = default;
    DeviceOptions(const DeviceOptions&) = delete;
    DeviceOptions& operator=(const DeviceOptions&) = delete;

    /// Adds the options to the command line. Parsing the command line stores the values in this object, which
    /// must outlive `app`.
    virtual void AddTo(CLI::App& app) = 0;

    /// Makes the link, after the command line was parsed.
    /// @return null, with a line in the log, if the device cannot be reached
    virtual std::unique_ptr<DeviceLink> MakeLink(unsigned short deviceId) const = 0;
};

/// Makes the options of the kind of device that this program supports. SimDeviceLink.cpp has the definition for
/// a simulated device; a card links its own definition instead. Not null.
std::unique_ptr<DeviceOptions> MakeDeviceOptions();

#endif
