#ifndef ENGINE_KYTFERCLIENTMEMBERS_H
#define ENGINE_KYTFERCLIENTMEMBERS_H

#include <pthread.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "directory/KyTferDirectory.h"
#include "engine/KyRequestMutex.h"
#include "messages/KyTferStatusMsg.h"
#include "platform/KyPldProxy.h"
#include "platform/KyTimerMgr.h"

namespace ky_engine {

class KyStatusRecord;

/// The state of one engine. Only KyStatusRecord accesses the private members.
class KyTferClientMembers {
    friend class KyStatusRecord;

public:
    /// A kept listing. `lastRead` is the number of its last CreateDirectoryFromFile call.
    struct Listing {
        std::unique_ptr<KyTferDirectory> directory;
        unsigned long long lastRead = 0;
    };

    std::atomic<bool> m_transactionActive{true};       ///< monitors poll while it is set
    std::atomic<bool> m_stopRequested{false};          ///< Stop was called
    std::atomic<bool> m_initialized{false};            ///< Init has ended
    std::atomic<unsigned short> m_deviceId{0};         ///< the managed device
    std::atomic<unsigned int> m_serverMinVersion{0};   ///< lowest protocol version of the device
    std::atomic<unsigned int> m_serverMaxVersion{0};   ///< highest protocol version of the device
    std::atomic<unsigned int> m_serverMaxFileSize{0};  ///< largest file that the device accepts; only logged

private:
    std::string m_xferFileName KY_GUARDED_BY(m_requestMutex);       ///< transfer name of the listing file
    unsigned int m_xferFileSize KY_GUARDED_BY(m_requestMutex) = 0;  ///< last value of the size point

public:
    std::map<std::string, Listing> m_directoryMap;  ///< by path of the listing file
    std::string m_currentRequest;               ///< last value of the request point; used by DataChange only
    std::atomic<unsigned short> m_maiMmIdx{0};  ///< the card's module index, from 1; 0 if not found
    int m_physicalSlot = -1;                    ///< of the card; Init sets 1
    KyTimerMgr m_timerMgr;                      ///< no operation starts a timer
    unsigned short m_timerId = KyTimerMgr::INVALID_TIMER_ID;  ///< keeps this value
    std::atomic<KyPldProxy*> m_pldProxy{nullptr};             ///< not owned; null without a device

private:
    KyTferStatusMsg m_status KY_GUARDED_BY(m_requestMutex){512};  ///< the status record

public:
    pthread_t m_getDirMonitorThread{};   ///< last listing monitor
    pthread_t m_getFileMonitorThread{};  ///< last fetch monitor
    pthread_t m_putFileMonitorThread{};  ///< never started
    pthread_t m_dirFileFetchThread{};    ///< last worker of a listing
    pthread_t m_fileFetchThread{};       ///< last worker of a fetch
    pthread_t m_putFileThread{};         ///< last worker of a push
    KyRequestMutex m_requestMutex;       ///< guards the members marked with it

    // Shared by all engines of the process. The last Init sets them.

    /// @{
    /// Set or copy the directories under a lock: one engine's Init may run during another engine's fetch.
    static void SetDirectories(const std::string& landing, const std::string& download);
    static std::string LandingDirectory();
    static std::string DownloadDirectory();
    static const void* DownloadDirectoryAddress() { return &s_downloadDir; }
    /// @}

    static std::atomic<int> m_genPutFileName;  ///< number of the next pushed file

private:
    static std::string s_sorLandingDir;  ///< landing directory; ends with "/"
    static std::string s_downloadDir;    ///< download directory; ends with "/"
};

}  // namespace ky_engine

#endif
