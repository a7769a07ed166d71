#include "simdevice/SimDeviceBuilder.h"

#include <sys/stat.h>

#include <exception>

#include "platform/KyNetUtils.h"
#include "simdevice/SimDevice.h"

namespace {

std::string WithSlash(const std::string& directory) {
    return !directory.empty() && directory.back() == '/' ? directory : directory + "/";
}

}  // namespace

SimDeviceBuilder::SimDeviceBuilder(const std::string& directory) {
    m_config.directory = WithSlash(directory);
}

SimDeviceBuilder& SimDeviceBuilder::DeviceId(unsigned short deviceId) {
    m_config.deviceId = deviceId;
    return *this;
}

SimDeviceBuilder& SimDeviceBuilder::Modules(unsigned short count, unsigned short cardIndex) {
    m_config.modules = count;
    m_config.cardIndex = cardIndex;
    return *this;
}

SimDeviceBuilder& SimDeviceBuilder::Transport(SimTransport transport) {
    m_config.transport = transport;
    return *this;
}

SimDeviceBuilder& SimDeviceBuilder::ServerVersions(unsigned int min, unsigned int max) {
    m_config.minVersion = min;
    m_config.maxVersion = max;
    return *this;
}

SimDeviceBuilder& SimDeviceBuilder::ServerMaxFileSize(unsigned int bytes) {
    m_config.maxFileSize = bytes;
    return *this;
}

SimDeviceBuilder& SimDeviceBuilder::Dmp(unsigned int supported, unsigned int speed) {
    m_config.dmpSupported = supported;
    m_config.usbSpeed = speed;
    return *this;
}

SimDeviceBuilder& SimDeviceBuilder::Mac(const std::string& text) {
    m_config.mac = text;
    m_macGiven = true;
    return *this;
}

SimDeviceBuilder& SimDeviceBuilder::LandingDirectory(const std::string& directory) {
    m_config.landingDirectory = WithSlash(directory);
    return *this;
}

SimDeviceBuilder& SimDeviceBuilder::LineRate(std::uint64_t bytesPerSecond) {
    m_config.lineRate = bytesPerSecond;
    return *this;
}

SimDeviceBuilder& SimDeviceBuilder::Journal(bool keep) {
    m_config.journal = keep;
    return *this;
}

SimDeviceBuilder& SimDeviceBuilder::ManualDelivery(bool manual) {
    m_config.manualDelivery = manual;
    return *this;
}

std::unique_ptr<SimDevice> SimDeviceBuilder::Build() const {
    struct stat info = {};
    if (stat(m_config.directory.c_str(), &info) != 0) return nullptr;
    try {
        SimDeviceConfig config = m_config;
        if (!m_macGiven) config.mac = tal_netutils::KyNetUtils::GetMAC();
        if (config.landingDirectory.empty())
            config.landingDirectory = "/var/local/tal/pldserver/" + std::to_string(config.deviceId) + "/";
        return std::unique_ptr<SimDevice>(new SimDevice(config));
    } catch (const std::exception&) {
        return nullptr;
    }
}
