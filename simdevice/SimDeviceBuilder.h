#ifndef SIMDEVICE_SIMDEVICEBUILDER_H
#define SIMDEVICE_SIMDEVICEBUILDER_H

#include <cstdint>
#include <memory>
#include <string>

#include "simdevice/SimDeviceConfig.h"

class SimDevice;

/// Says what a simulated device is like, and builds it. One thread uses a builder; it can build several
/// devices.
///
/// Unless told otherwise the device has identifier 3 and three modules with the card at index 2, speaks over
/// Sorrel 485 with version 1 only, takes files up to 1 GiB, has an unlimited line, keeps no journal, and
/// reports its changes from a thread of its own.
class SimDeviceBuilder {
public:
    /// @param directory  an existing directory; its regular files, hidden ones left out, are the device's
    /// files
    explicit SimDeviceBuilder(const std::string& directory);

    SimDeviceBuilder& DeviceId(unsigned short deviceId);

    /// @param count      number of modules, 0 for none
    /// @param cardIndex  the card's, counted from 1; one outside of 1 to `count` is a device without the card
    SimDeviceBuilder& Modules(unsigned short count, unsigned short cardIndex);

    SimDeviceBuilder& Transport(SimTransport transport);
    SimDeviceBuilder& ServerVersions(unsigned int min, unsigned int max);

    /// Largest file in bytes that the device announces to take, and takes.
    SimDeviceBuilder& ServerMaxFileSize(unsigned int bytes);

    /// @param supported  value of the DMP point: 1 means supported
    /// @param speed      value of the USB speed point: 2 or less is full speed, 3 or more high speed
    SimDeviceBuilder& Dmp(unsigned int supported, unsigned int speed);

    /// MAC text that the device has stored for the card; without it, the text of the machine it is built on.
    SimDeviceBuilder& Mac(const std::string& text);

    /// Where fetched files grow; without it "/var/local/tal/pldserver/<device>/". The device does not create
    /// it.
    SimDeviceBuilder& LandingDirectory(const std::string& directory);

    /// Speed of the line to the card in bytes per second, both ways; 0 for unlimited.
    SimDeviceBuilder& LineRate(std::uint64_t bytesPerSecond);

    /// Whether the device keeps the journal of the card's calls.
    SimDeviceBuilder& Journal(bool keep);

    /// True for a device without a delivery thread: the owner calls SimDevice::DeliverPending.
    SimDeviceBuilder& ManualDelivery(bool manual);

    /// Builds the device. @return null if the directory is not there or the system gives no thread or handle
    std::unique_ptr<SimDevice> Build() const;

private:
    SimDeviceConfig m_config;
    bool m_macGiven = false;
};

#endif
