// Lifecycle: construction, binding to a device, negotiation of the transport, stopping.
#include "engine/KyTferClient.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "engine/KyTferClientConstants.h"
#include "platform/KyDlog.h"
#include "platform/tal_fileutils.h"

using namespace ky_engine;

std::string KyTferClient::s_sorLandingDir;
std::string KyTferClient::s_downloadDir;

namespace {

constexpr char kDmpSupportedFile[] = "/var/tmp/dmp/dmp_supported";
constexpr char kUsbForceFsFile[] = "/var/tmp/dmp/usb_force_fs";

constexpr unsigned int kClientVersion = 1;
constexpr unsigned int kClientMaxFileSize = 307200;
constexpr unsigned int kFastestFullSpeed = 2;

// Guards the directories, which belong to the class: one engine's Init may meet another engine's fetch.
std::mutex g_directoriesMutex;

// The flag files lie where others may write: a symbolic link there is not followed, and a FIFO does not make
// us wait for its reader.
void CreateFlagFile(const char* path, const char* function) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0666);
    if (fd >= 0) {
        close(fd);
        return;
    }
    const int error = errno;
    __dlog_printfex(KY_DLOG_ERROR, kSource, function, "Error creating '%s' (%d: %s)", path, error,
                    strerror(error));
}

void RemoveFlagFile(const char* path, const char* function) {
    if (unlink(path) == 0) return;
    const int error = errno;
    struct stat info = {};
    if (stat(path, &info) != 0) return;
    __dlog_printfex(KY_DLOG_ERROR, kSource, function, "Error deleting '%s' (%d: %s)", path, error,
                    strerror(error));
}

}  // namespace

KyTferClient::KyTferClient() : m_status(512) {
    m_status.SetStatus(KyTferStatusMsg::TFER_STATUS_NONE);
}

KyTferClient::~KyTferClient() {
    KyTferClient::Stop();
    FreeListings();
}

int KyTferClient::Init(unsigned short deviceId, KyPldProxy* proxy) {
    KyEngineThreads::Call call(m_threads, KyEngineThreads::Call::ALWAYS);
    m_deviceId = deviceId;
    m_pldProxy = proxy;
    __dlog_printfex(KY_DLOG_TRACE, kSource, "Init", "Enter");
    m_physicalSlot = 1;
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "Init", "Monitoring card is in physical slot #%d",
                    m_physicalSlot);
    int status = kNoMemory;
    try {
        FindModule();
        __dlog_printfex(KY_DLOG_NOTICE, kSource, "Init",
                        "MAI multi-module index (1-based) that we will use: %d", m_maiMmIdx.load());
        SetDirectories();
        if (m_requestMutex.CreationError() != 0) {
            __dlog_printfex(KY_DLOG_ERROR, kSource, "Init", "error initializing request mutex. error=%d",
                            m_requestMutex.CreationError());
        }
        status = Negotiate();
    } catch (...) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "Init", "%s", kOutOfMemory);
    }
    m_initialized = true;
    return status;
}

void KyTferClient::SetDirectories() {
    const std::string id = std::to_string(m_deviceId.load());
    const std::string landing = std::string(kPldServerDir) + "/" + id + "/";
    const std::string download = landing + "tferFiles" + "/";
    {
        std::lock_guard<std::mutex> lock(g_directoriesMutex);
        s_sorLandingDir = landing;
        s_downloadDir = download;
    }
    tal_fileutils::MakeDirPath(download, 0777, true);
    tal_fileutils::MakeDirPath(landing + id + "/", 0777, true);
}

int KyTferClient::Negotiate() {
    unsigned int minVersion = 0;
    const int status = ReadPoint(minVersion, PNT_SERVER_MIN_VERSION);
    if (status != 0) return ProbeUsb(status);
    m_serverMinVersion = minVersion;
    return NegotiateSorrel485();
}

// A step that fails is logged and the sequence goes on; only the last write's status is the result.
int KyTferClient::NegotiateSorrel485() {
    SetDmpSupported(false);
    int status = ReadPoint(m_serverMaxVersion, PNT_SERVER_MAX_VERSION);
    if (status != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "Init", "Could not get server max version. status(%d)",
                        status);
    }
    status = ReadPoint(m_serverMaxFileSize, PNT_SERVER_MAX_FILE_SIZE);
    if (status != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "Init", "Could not get server max file size. status(%d)",
                        status);
    }
    status = WritePoint(kClientVersion, PNT_CLIENT_MIN_VERSION);
    if (status != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "Init", "Could not set client min version. status(%d)",
                        status);
    }
    status = WritePoint(kClientVersion, PNT_CLIENT_MAX_VERSION);
    if (status != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "Init", "Could not set client max version. status(%d)",
                        status);
    }
    status = WritePoint(kClientMaxFileSize, PNT_CLIENT_MAX_FILE_SIZE);
    if (status != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "Init", "Could not set client max file size. status(%d)",
                        status);
    }
    status = WritePoint(XferFileSize(), PNT_XFER_FILE_SIZE);
    if (status != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "Init", "Could not set client max file size. status(%d)",
                        status);
    }
    TraceLimits();
    SendString(kRequestNone, PNT_CLIENT_FILE_REQ);
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "Init", "download dir is(%s)",
                    GetHmiDownloadDirectory().c_str());
    return status;
}

unsigned int KyTferClient::XferFileSize() {
    KyRequestLock lock(m_requestMutex);
    return m_xferFileSize;
}

void KyTferClient::TraceLimits() const {
    __dlog_printfex(KY_DLOG_TRACE, kSource, "Init", "Server Min Supported Version(%d)",
                    static_cast<int>(m_serverMinVersion.load()));
    __dlog_printfex(KY_DLOG_TRACE, kSource, "Init", "Server Max Supported Version(%d)",
                    static_cast<int>(m_serverMaxVersion.load()));
    __dlog_printfex(KY_DLOG_TRACE, kSource, "Init", "Server Max Supported File Size(%d)",
                    static_cast<int>(m_serverMaxFileSize.load()));
    __dlog_printfex(KY_DLOG_TRACE, kSource, "Init", "Client Min Supported Version(%d)",
                    static_cast<int>(kClientVersion));
    __dlog_printfex(KY_DLOG_TRACE, kSource, "Init", "Client Max Supported Version(%d)",
                    static_cast<int>(kClientVersion));
    __dlog_printfex(KY_DLOG_TRACE, kSource, "Init", "Client Max Supported File Size(%d)",
                    static_cast<int>(kClientMaxFileSize));
}

int KyTferClient::ProbeUsb(int minVersionStatus) {
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "Init",
                    "Could not get server min version (status=%d). Sorrel 485 transport not supported.",
                    minVersionStatus);
    unsigned int dmpSupported = 0;
    int status = ReadPoint(dmpSupported, PNT_DMP_SUPPORTED);
    if (status != 0) {
        __dlog_printfex(KY_DLOG_NOTICE, kSource, "Init",
                        "Could not get server DMP support flag (status=%d). USB transport not supported.",
                        status);
        SetDmpSupported(false);
        return status;
    }
    if (dmpSupported != 1) {
        __dlog_printfex(KY_DLOG_NOTICE, kSource, "Init", "Server explicitly indicates DMP is NOT supported.");
        SetDmpSupported(false);
        return 0;
    }
    unsigned int maxUsbSpeed = 0;
    status = ReadPoint(maxUsbSpeed, PNT_MAX_USB_SPEED);
    if (status != 0) {
        __dlog_printfex(KY_DLOG_NOTICE, kSource, "Init",
                        "Could not get server Max USB Speed (status=%d). USB transport not supported.",
                        status);
        SetDmpSupported(false);
        return status;
    }
    SetDmpSupported(true);
    PublishUsbSpeed(maxUsbSpeed);
    return 0;
}

void KyTferClient::PublishUsbSpeed(unsigned int maxUsbSpeed) {
    if (maxUsbSpeed <= kFastestFullSpeed) {
        __dlog_printfex(KY_DLOG_NOTICE, kSource, "Init",
                        "Server indicates DMP is supported at Full Speed (12 Mbit/s) or lower.");
        CreateFlagFile(kUsbForceFsFile, "Init");
    } else {
        __dlog_printfex(KY_DLOG_NOTICE, kSource, "Init",
                        "Server indicates DMP is supported at High Speed (480 Mbit/s) or greater.");
        RemoveFlagFile(kUsbForceFsFile, "Init");
    }
}

void KyTferClient::SetDmpSupported(bool supported) {
    if (supported) {
        CreateFlagFile(kDmpSupportedFile, "SetDmpSupported");
    } else {
        RemoveFlagFile(kDmpSupportedFile, "SetDmpSupported");
    }
}

bool KyTferClient::IsTferProtocolSupported() const {
    return m_serverMinVersion != 0 && m_serverMaxVersion != 0;
}

std::string KyTferClient::LandingDirectory() {
    std::lock_guard<std::mutex> lock(g_directoriesMutex);
    return s_sorLandingDir;
}

std::string KyTferClient::DownloadDirectory() {
    std::lock_guard<std::mutex> lock(g_directoriesMutex);
    return s_downloadDir;
}

std::string KyTferClient::GetHmiDownloadDirectory() {
    std::string directory;
    try {
        directory = DownloadDirectory();
    } catch (...) {
        return directory;
    }
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "GetHmiDownloadDirectory", "%p - %s",
                    static_cast<void*>(&s_downloadDir), directory.c_str());
    return directory;
}

std::string KyTferClient::GetCardReceiveFileDirectory() {
    try {
        return LandingDirectory();
    } catch (...) {
        return std::string();
    }
}

void KyTferClient::Stop() {
    m_transactionActive = false;
    m_stopRequested = true;
    m_threads.Close();
    // A request that was on its way when the flag was cleared may have set it again; none is any more.
    m_transactionActive = false;
    m_threads.JoinAll();
}
