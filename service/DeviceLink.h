#ifndef SERVICE_DEVICELINK_H
#define SERVICE_DEVICELINK_H

#include <functional>
#include <memory>

#include "platform/KyPldProxy.h"
#include "platform/KyValChgInfo.h"

struct ServiceOptions;

/// The service's way to its device: the proxy, and the changes of the device's points.
///
/// This and MakeDeviceLink are all that a card changes in the service: its own link brings its own proxy, and
/// hands over the changes that its platform reports.
class DeviceLink {
public:
    using ChangeReceiver = std::function<void(const KyValChgInfo&)>;

    DeviceLink() = default;
    virtual ~DeviceLink() = default;
    DeviceLink(const DeviceLink&) = delete;
    DeviceLink& operator=(const DeviceLink&) = delete;

    /// The proxy; lives as long as the link. Any thread may call it.
    virtual KyPldProxy& Proxy() = 0;

    /// A descriptor that is readable while changes wait; for poll alone. Stays the link's.
    virtual int ChangesDescriptor() const = 0;

    /// Gives the changes that wait to `receiver`, in their order, on the calling thread, and returns. Called
    /// from one thread at a time.
    virtual void DeliverChanges(const ChangeReceiver& receiver) = 0;

    /// Ends the proxy's calls that are under way, and lets all later ones fail at once. Any thread may call
    /// it, more than once.
    virtual void Abort() = 0;
};

/// Makes the link that the options ask for.
/// @return null, with a line in the log, if the device cannot be reached
std::unique_ptr<DeviceLink> MakeDeviceLink(const ServiceOptions& options);

#endif
