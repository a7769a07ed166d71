#ifndef DEMO_CARDANDDEVICE_H
#define DEMO_CARDANDDEVICE_H

#include <functional>
#include <memory>
#include <string>

#include "engine/KyTferClient.h"
#include "messages/KyTferStatusMsg.h"
#include "simdevice/SimDevice.h"

namespace ky_demo {

/// The engine of a card and the simulated device that it manages, and what a transfer service does between
/// them: it hands the device's changes to the engine, and waits for the end of a transaction before the next
/// request.
///
/// Used by one thread. The destructor ends what is under way and takes about a second then.
class CardAndDevice {
public:
    /// Builds both; they do not know of each other yet. Throws std::runtime_error if there is no device.
    ///
    /// @param deviceDirectory  holds the device's files
    explicit CardAndDevice(const std::string& deviceDirectory);
    ~CardAndDevice();
    CardAndDevice(const CardAndDevice&) = delete;
    CardAndDevice& operator=(const CardAndDevice&) = delete;

    /// Binds the engine to the device, once. Blocks for eight seconds and may run on a thread of its own.
    ///
    /// @return the status of KyTferClient::Init
    int Bind();

    /// Lets a transaction run to its end, which is when no worker runs and all changes of the points have
    /// been delivered. The monitor of a failed one may then still write to the record.
    ///
    /// @param watch  is shown the status record some 20 times a second until then
    /// @return the status record at the end
    KyTferStatusMsg Finish(const std::function<void(const KyTferStatusMsg&)>& watch = nullptr);

    KyTferClient& Engine() { return m_engine; }
    SimDevice& Device() { return *m_device; }

private:
    bool Quiet();

    const std::unique_ptr<SimDevice> m_device;
    KyTferClient m_engine;
};

}  // namespace ky_demo

#endif
