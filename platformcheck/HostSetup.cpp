// The host as the platform: FIFOs in a temporary directory, and the simulated device behind the proxy.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "platformcheck/PlatformTest.h"
#include "simdevice/SimDevice.h"

namespace {

/// The directories of FIFOs, device and landing files; removed at the end of the process.
class HostDirectory {
public:
    HostDirectory() {
        if (mkdtemp(m_path.data()) == nullptr) {
            std::perror("platform-check: no directory in /tmp");
            std::exit(1);
        }
        for (const char* const part : {"/fifos", "/device", "/landing"})
            mkdir((m_path + part).c_str(), 0700);
        setenv("KY_IPC_DIR", (m_path + "/fifos").c_str(), 1);
    }
    HostDirectory(const HostDirectory&) = delete;
    HostDirectory& operator=(const HostDirectory&) = delete;
    ~HostDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    const std::string& Path() const { return m_path; }

private:
    std::string m_path = "/tmp/ky-platform-check-host-XXXXXX";
};

ky_platform_check::Device Connect(const std::string& directory) {
    ky_platform_check::Device device;
    device.fileName = "sample.bin";
    device.fileBytes = ky_platform_check::Noise(200000, 9);
    device.landingDirectory = directory + "/landing/";
    const std::string files = directory + "/device/";
    ky_platform_check::WriteFileBytes(files + device.fileName, device.fileBytes);
    device.proxy =
        SimDevice::Builder(files).LandingDirectory(device.landingDirectory).LineRate(1000000).Build();
    device.id = 3;
    device.number = sim_point::SERVER_MAX_FILE_SIZE;
    device.text = sim_point::XFER_FILE_NAME;
    device.absent = 1;
    device.agentInfo = sim_point::MON_AGENT_INFO;
    device.pushName = "pushed.bin";
    device.received = [files](const std::string& name, const std::string& bytes) {
        return ky_platform_check::FileBytes(files + name) == bytes;
    };
    return device;
}

}  // namespace

ky_platform_check::Setup SetUpPlatformCheck() {
    static const HostDirectory s_directory;
    ky_platform_check::Setup setup;
    setup.connect = [] { return Connect(s_directory.Path()); };
    return setup;
}
