#ifndef ENGINE_KYDEVICEACCESS_H
#define ENGINE_KYDEVICEACCESS_H

#include <array>
#include <atomic>
#include <mutex>
#include <string>

#include "platform/KyPldProxy.h"

namespace ky_engine {

/// Accesses the device's points and files through the proxy.
///
/// Operations block until the proxy returns. Without a proxy, an operation fails. If the proxy throws, the operation
/// logs that and fails. Any thread may call any operation.
class KyDeviceAccess {
public:
    /// The arguments are not owned and must outlive the object.
    KyDeviceAccess(const std::atomic<KyPldProxy*>& proxy, const std::atomic<unsigned short>& deviceId,
                   const std::atomic<unsigned short>& mmIdx);

    // Each returns the proxy's status, 0 for success. A failed read does not change `value`.

    int Read(unsigned int& value, unsigned short pointId) const;
    int Write(unsigned int value, unsigned short pointId);
    int ReadText(std::string& value, unsigned short pointId, unsigned short mmIdx) const;

    /// Writes the empty text, then the value, and logs. @return the status of the second write
    int Send(const std::string& value, unsigned short pointId);

    int GetReport(unsigned int& reportId, unsigned short pointId) const;
    int GetModuleCount(unsigned int& count, unsigned int reportId) const;

    /// The proxy fetches a file into the landing directory.
    void FetchFile(const std::string& name) const;

    /// @return true if the device has taken the file
    bool PushFile(const std::string& directory, const std::string& name,
                  const std::string& transferName) const;

    /// Ends the running file calls, if the proxy implements that.
    void AbortTransfer() const;

    /// Returns true if a reported value is an echo: the device's report of a write of the card, which may come after
    /// the write has returned. Each write matches one reported value, for two to three seconds; the match removes it.
    bool ConsumeEcho(unsigned short pointId, const std::string& value);

private:
    struct OwnWrite {
        std::size_t hash = 0;   // of point and value; 0 for none
        long long expires = 0;  // wall-clock seconds
    };

    int WriteText(const char* value, unsigned short pointId);
    void ExpectEcho(unsigned short pointId, const std::string& value);
    void UpdateEcho(unsigned short pointId, const std::string& value, int status);

    const std::atomic<KyPldProxy*>& m_proxy;
    const std::atomic<unsigned short>& m_deviceId;
    const std::atomic<unsigned short>& m_mmIdx;
    std::mutex m_ownWritesMutex;  // guards the two members below; no other lock is taken while it is held
    std::array<OwnWrite, 16> m_ownWrites;
    std::size_t m_nextOwnWrite = 0;
};

}  // namespace ky_engine

#endif
