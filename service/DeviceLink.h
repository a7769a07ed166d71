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

    /// The proxy; lives as long as the link. Any thread may call it.
    virtual KyPldProxy& Proxy() = 0;

    /// A descriptor that is readable while changes are queued. The service passes it to poll(); the link owns
    /// it.
    virtual int ChangesDescriptor() const = 0;

    /// Passes the queued changes to `receiver`, in order, on the calling thread. Does not wait for more. One
    /// thread calls it at a time.
    virtual void DeliverChanges(const ChangeReceiver& receiver) = 0;

    /// Ends the proxy's running calls, and makes later ones fail at once. Any thread may call it, more than
    /// once.
    virtual void Abort() = 0;
};

/// The options of tfersvc that describe the device. A card may have none.
class DeviceOptions {
public:
    DeviceOptions() = default;
    virtual ~DeviceOptions() = default;
    DeviceOptions(const DeviceOptions&) = delete;
    DeviceOptions& operator=(const DeviceOptions&) = delete;

    /// Adds the options to the command line, whose parsing stores their values here.
    virtual void AddTo(CLI::App& app) = 0;

    /// Makes the link, after the command line was parsed.
    /// @return null, with a line in the log, if the device cannot be reached
    virtual std::unique_ptr<DeviceLink> MakeLink(unsigned short deviceId) const = 0;
};

/// Chooses the kind of device. The host's definition is in SimDeviceLink.cpp; a card links its own in its
/// place.
std::unique_ptr<DeviceOptions> MakeDeviceOptions();

#endif
