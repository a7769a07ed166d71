#include "engine/KyNegotiation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "engine/KyTferClient.h"
#include "engine/KyTferClientConstants.h"
#include "platform/KyDlog.h"

namespace ky_engine {

namespace {

constexpr char kFunction[] = "Init";
constexpr unsigned int kClientVersion = 1;
constexpr unsigned int kClientMaxFileSize = 307200;
constexpr unsigned int kMaxFullSpeed = 2;

void LogFailure(const char* action, const char* path, const char* function, int error) {
    __dlog_printfex(KY_DLOG_ERROR, kSource, function, "Error %s '%s' (%d: %s)", action, path, error,
                    strerror(error));
}

// Other users may write to the directory: do not follow a symbolic link, and do not block on a FIFO.
void Create(const char* path, const char* function) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0666);
    if (fd < 0) return LogFailure("creating", path, function, errno);
    close(fd);
}

void Remove(const char* path, const char* function) {
    if (unlink(path) == 0) return;
    const int error = errno;
    struct stat info = {};
    if (stat(path, &info) == 0) LogFailure("deleting", path, function, error);
}

void SetFlagFile(const char* path, const char* function, bool exists) {
    if (exists) {
        Create(path, function);
    } else {
        Remove(path, function);
    }
}

void LogUnsupported(const char* what, int status, const char* transport) {
    __dlog_printfex(KY_DLOG_NOTICE, kSource, kFunction,
                    "Could not get server %s (status=%d). %s transport not supported.", what, status,
                    transport);
}

void TraceLimits(const KyTferClientMembers& members) {
    const struct {
        const char* what;
        unsigned int value;
    } limits[] = {
        {"Server Min Supported Version", members.m_serverMinVersion},
        {"Server Max Supported Version", members.m_serverMaxVersion},
        {"Server Max Supported File Size", members.m_serverMaxFileSize},
        {"Client Min Supported Version", kClientVersion},
        {"Client Max Supported Version", kClientVersion},
        {"Client Max Supported File Size", kClientMaxFileSize},
    };
    for (const auto& limit : limits) {
        __dlog_printfex(KY_DLOG_TRACE, kSource, kFunction, "%s(%d)", limit.what,
                        static_cast<int>(limit.value));
    }
}

struct NegotiationStep {
    std::atomic<unsigned int>* read;  // receives the value; null for a write
    unsigned int written;
    unsigned short pointId;
    const char* what;
};

int RunStep(KyDeviceAccess& device, const NegotiationStep& step) {
    unsigned int value = 0;
    const int status =
        step.read != nullptr ? device.Read(value, step.pointId) : device.Write(step.written, step.pointId);
    if (status != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, kFunction, "Could not %s. status(%d)", step.what, status);
    } else if (step.read != nullptr) {
        *step.read = value;
    }
    return status;
}

int NegotiateSorrel485(KyDeviceAccess& device, KyTferClientMembers& members, unsigned int xferFileSize) {
    const NegotiationStep steps[] = {
        {&members.m_serverMaxVersion, 0, PNT_SERVER_MAX_VERSION, "get server max version"},
        {&members.m_serverMaxFileSize, 0, PNT_SERVER_MAX_FILE_SIZE, "get server max file size"},
        {nullptr, kClientVersion, PNT_CLIENT_MIN_VERSION, "set client min version"},
        {nullptr, kClientVersion, PNT_CLIENT_MAX_VERSION, "set client max version"},
        {nullptr, kClientMaxFileSize, PNT_CLIENT_MAX_FILE_SIZE, "set client max file size"},
        {nullptr, xferFileSize, PNT_XFER_FILE_SIZE, "set client max file size"},
    };
    SetDmpSupported(false);
    int status = 0;
    for (const NegotiationStep& step : steps)
        status = RunStep(device, step);
    TraceLimits(members);
    device.Send(kRequestNone, PNT_CLIENT_FILE_REQ);
    __dlog_printfex(KY_DLOG_NOTICE, kSource, kFunction, "download dir is(%s)",
                    KyTferClient::GetHmiDownloadDirectory().c_str());
    return status;
}

int ProbeUsb(const KyDeviceAccess& device) {
    unsigned int supported = 0;
    unsigned int speed = 0;
    const struct {
        unsigned int& value;
        unsigned short pointId;
        const char* what;
    } reads[] = {{supported, PNT_DMP_SUPPORTED, "DMP support flag"},
                 {speed, PNT_MAX_USB_SPEED, "Max USB Speed"}};
    for (const auto& read : reads) {
        const int status = device.Read(read.value, read.pointId);
        if (status != 0) {
            LogUnsupported(read.what, status, "USB");
            SetDmpSupported(false);
            return status;
        }
        if (supported == 1) continue;
        __dlog_printfex(KY_DLOG_NOTICE, kSource, kFunction,
                        "Server explicitly indicates DMP is NOT supported.");
        SetDmpSupported(false);
        return 0;
    }
    SetDmpSupported(true);
    const bool fullSpeed = speed <= kMaxFullSpeed;
    __dlog_printfex(KY_DLOG_NOTICE, kSource, kFunction, "Server indicates DMP is supported at %s.",
                    fullSpeed ? "Full Speed (12 Mbit/s) or lower" : "High Speed (480 Mbit/s) or greater");
    SetFlagFile("/var/tmp/dmp/usb_force_fs", kFunction, fullSpeed);
    return 0;
}

}  // namespace

void SetDmpSupported(bool supported) {
    SetFlagFile("/var/tmp/dmp/dmp_supported", "SetDmpSupported", supported);
}

int Negotiate(KyDeviceAccess& device, KyTferClientMembers& members, unsigned int xferFileSize) {
    unsigned int minVersion = 0;
    const int status = device.Read(minVersion, PNT_SERVER_MIN_VERSION);
    if (status == 0) {
        members.m_serverMinVersion = minVersion;
        return NegotiateSorrel485(device, members, xferFileSize);
    }
    LogUnsupported("min version", status, "Sorrel 485");
    return ProbeUsb(device);
}

}  // namespace ky_engine
