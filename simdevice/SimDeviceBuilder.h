#ifndef SIMDEVICE_SIMDEVICEBUILDER_H
#define SIMDEVICE_SIMDEVICEBUILDER_H

#include <cstdint>
#include <memory>
#include <string>

class SimDevice;

/// The transport that a device offers to the card.
enum class SimTransport {
    SORREL_485,  ///< the device has the points for versions, sizes and requests
    USB_ONLY,    ///< the device lacks these points: every access of them fails
};

/// The properties of a simulated device. They do not change after it is built; SimDeviceBuilder sets them.
struct SimDeviceConfig {
    std::string directory;         ///< holds the device's files; ends with "/"
    std::string landingDirectory;  ///< where fetched files grow on the card; ends with "/"
    std::string mac;               ///< text at the card's module index
    unsigned short deviceId = 3;
    unsigned short modules = 3;    ///< number of module indexes, which begin at 1
    unsigned short cardIndex = 2;  ///< module index of the card
    SimTransport transport = SimTransport::SORREL_485;
    unsigned int minVersion = 1;
    unsigned int maxVersion = 1;
    unsigned int maxFileSize = 1U << 30;  ///< bytes; the device refuses larger files
    unsigned int dmpSupported = 1;
    unsigned int usbSpeed = 3;
    std::uint64_t lineRate = 0;  ///< bytes per second; 0 for unlimited
    bool manualDelivery = false;
};

/// Builds simulated devices. One thread uses a builder; it can build several devices.
///
/// By default the device has identifier 3, three modules and the card at index 2. It speaks over Sorrel 485
/// with version 1, takes files up to 1 GiB and has an unlimited line. A thread of its own reports its
/// changes.
class SimDeviceBuilder {
public:
    /// @param directory  an existing directory; its regular files that are not hidden are the device's files
    explicit SimDeviceBuilder(const std::string& directory) { m_config.directory = WithSlash(directory); }

    SimDeviceBuilder& DeviceId(unsigned short deviceId) { return Set(m_config.deviceId, deviceId); }

    /// @param count      number of modules, 0 for none
    /// @param cardIndex  index of the card, counted from 1; outside of 1 to `count`, the device lacks the card
    SimDeviceBuilder& Modules(unsigned short count, unsigned short cardIndex) {
        return Set(m_config.modules, count).Set(m_config.cardIndex, cardIndex);
    }

    SimDeviceBuilder& Transport(SimTransport transport) { return Set(m_config.transport, transport); }

    SimDeviceBuilder& ServerVersions(unsigned int min, unsigned int max) {
        return Set(m_config.minVersion, min).Set(m_config.maxVersion, max);
    }

    /// Size of the largest file that the device takes, in bytes. The device announces it.
    SimDeviceBuilder& ServerMaxFileSize(unsigned int bytes) { return Set(m_config.maxFileSize, bytes); }

    /// @param supported  value of the DMP point: 1 means supported
    /// @param speed      value of the USB speed point: up to 2 is full speed, from 3 on high speed
    SimDeviceBuilder& Dmp(unsigned int supported, unsigned int speed) {
        return Set(m_config.dmpSupported, supported).Set(m_config.usbSpeed, speed);
    }

    /// MAC text that the device holds for the card. By default, that of the machine.
    SimDeviceBuilder& Mac(const std::string& text) { return Set(m_config.mac, text).Set(m_macGiven, true); }

    /// Where fetched files grow; by default "/var/local/tal/pldserver/<device>/". The device does not create
    /// the directory.
    SimDeviceBuilder& LandingDirectory(const std::string& directory) {
        return Set(m_config.landingDirectory, WithSlash(directory));
    }

    /// Speed of the line to the card in bytes per second, for both directions; 0 for unlimited.
    SimDeviceBuilder& LineRate(std::uint64_t bytesPerSecond) {
        return Set(m_config.lineRate, bytesPerSecond);
    }

    /// True for a device without a delivery thread: the owner calls SimDevice::DeliverPending.
    SimDeviceBuilder& ManualDelivery(bool manual) { return Set(m_config.manualDelivery, manual); }

    /// Builds the device.
    ///
    /// @return null if the directory does not exist, or the system has no thread or descriptor left
    std::unique_ptr<SimDevice> Build() const;

private:
    static std::string WithSlash(const std::string& directory) {
        return !directory.empty() && directory.back() == '/' ? directory : directory + "/";
    }

    template <typename Value>
    SimDeviceBuilder& Set(Value& property, const Value& value) {
        property = value;
        return *this;
    }

    SimDeviceConfig m_config;
    bool m_macGiven = false;
};

#endif
