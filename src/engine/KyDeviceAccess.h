#ifndef ENGINE_KYDEVICEACCESS_H
#define ENGINE_KYDEVICEACCESS_H

#include <array>
#include <atomic>
#include <mutex>
#include <string>

#include "platform/KyPldProxy.h"

namespace ky_engine {

/// The engine's way to the device: its points and its file calls, through the proxy.
///
/// Every operation blocks as long as the proxy does. An operation without a proxy fails, and so does one whose
/// proxy throws, which is logged. Any thread may call any operation.
class KyDeviceAccess {
public:
    /// The arguments belong to the engine and outlive the points.
    KyDeviceAccess(const std::atomic<KyPldProxy*>& proxy, const std::atomic<unsigned short>& deviceId,
                   const std::atomic<unsigned short>& mmIdx);

    // Each returns the proxy's status, 0 for success. A failed read leaves `value` as it was.

    int Read(unsigned int& value, unsigned short pointId) const;
    int Write(unsigned int value, unsigned short pointId);
    int ReadText(std::string& value, unsigned short pointId, unsigned short mmIdx) const;

    /// Writes the empty text and then the value. Logs, and gives the status of the second write.
    int Send(const std::string& value, unsigned short pointId);

    int GetReport(unsigned int& reportId, unsigned short pointId) const;
    int GetModuleCount(unsigned int& count, unsigned int reportId) const;

    /// Lets the proxy fetch a file into the landing directory.
    void FetchFile(const std::string& name) const;

    /// @return true if the device has taken the file
    bool PushFile(const std::string& directory, const std::string& name,
                  const std::string& transferName) const;

    /// Ends a file call that is under way, if the platform can.
    void AbortTransfer() const;

    /// True if a reported value is the echo of a write of our own: devices report those too, some of them when
    /// the write has long returned. An echo is expected once, for two seconds.
    bool ConsumeEcho(unsigned short pointId, const std::string& value);

private:
    struct OwnWrite {
        std::size_t hash = 0;   // a hash of point and value; 0 for none
        long long expires = 0;  // wall-clock seconds
    };

    int WriteText(const char* value, unsigned short pointId);
    void ExpectEcho(unsigned short pointId, const std::string& value);
    void UpdateEcho(unsigned short pointId, const std::string& value, int status);

    const std::atomic<KyPldProxy*>& m_proxy;
    const std::atomic<unsigned short>& m_deviceId;
    const std::atomic<unsigned short>& m_mmIdx;
    std::mutex m_ownWritesMutex;  // a leaf; guards the two below
    std::array<OwnWrite, 16> m_ownWrites;
    std::size_t m_nextOwnWrite = 0;
};

}  // namespace ky_engine

#endif
