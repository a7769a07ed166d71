#ifndef SIMDEVICE_SIMDEVICECONFIG_H
#define SIMDEVICE_SIMDEVICECONFIG_H

#include <cstdint>
#include <string>

/// The transports that a device offers to the card.
enum class SimTransport {
    SORREL_485,  ///< with version, size and conversation points
    USB_ONLY,    ///< without them: every access of theirs fails
};

/// What a simulated device is like; fixed once it is built. SimDeviceBuilder fills it.
struct SimDeviceConfig {
    std::string directory;         ///< holds the device's files; ends with "/"
    std::string landingDirectory;  ///< where fetched files grow on the card; ends with "/"
    std::string mac;               ///< text at the card's module index
    unsigned short deviceId = 3;
    unsigned short modules = 3;    ///< module indexes 1 to this one exist; 0 for none
    unsigned short cardIndex = 2;  ///< module index of the card
    SimTransport transport = SimTransport::SORREL_485;
    unsigned int minVersion = 1;
    unsigned int maxVersion = 1;
    unsigned int maxFileSize = 1U << 30;  ///< bytes; larger files are not taken from the card
    unsigned int dmpSupported = 1;
    unsigned int usbSpeed = 3;
    std::uint64_t lineRate = 0;  ///< bytes per second; 0 for unlimited
    bool journal = false;
    bool manualDelivery = false;
};

#endif
