#ifndef FUZZ_FUZZDEVICE_H
#define FUZZ_FUZZDEVICE_H

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

#include "platform/KyPldProxy.h"

/// A device that does to the engine what a fuzzer says. The fuzzer's thread calls the first part, any
/// thread the proxy's.
class FuzzDevice : public KyPldProxy {
public:
    static constexpr char kLanding[] = "/var/local/tal/pldserver/3/";
    static constexpr char kStaging[] = "/var/local/tal/pldserver/";

    /// How transfers go that begin from now on.
    struct Transfer {
        bool deliver = true;  ///< a file arrives, in two pieces
        unsigned size = 0;
        bool hold = false;      ///< waits for Release() between the pieces
        unsigned outcome = 0;   ///< 0: true, 1: false, otherwise an exception
        unsigned releases = 0;  ///< the device's: Release() calls before it began
    };

    /// What the search for the card's place meets.
    enum Search { NO_REPORT, FOUND, NEVER_FOUND };

    /// @param onSuccess  called when the engine tells that a file has come whole
    FuzzDevice(Search search, std::function<void()> onSuccess)
        : m_search(search), m_onSuccess(std::move(onSuccess)) {}

    void SetTransfer(const Transfer& transfer);
    /// Makes those of the next eight point accesses fail whose bits are set, with an exception if `throws`.
    void FailPoints(unsigned bits, bool throws);
    void SetValue(unsigned value);  ///< of all number points
    void Release();                 ///< lets the transfers go on that are held
    void Abort();                   ///< lets all go on, and fails all later ones
    void ExpectNoCall();            ///< from now on
    int Held();                     ///< transfers that are held

    int GetMaiString(std::string& value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int option) override;
    int GetMaiUint32(unsigned int& value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm) override;
    int SetMaiString(const char* value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int option,
                     unsigned int timeout) override;
    int SetMaiUint32(unsigned int value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int timeout) override;
    int GetMaxModuleCount(unsigned int& count, unsigned short device, unsigned short reportId) override;
    int GetPointReportId(unsigned int& reportId, unsigned short device, unsigned short pointId) override;

protected:
    bool DoGetDevFile(unsigned short device, const std::string& option, const std::string& fileName) override;
    bool DoPutDevFile(unsigned short device, const std::string& directory, const std::string& fileName,
                      const std::string& xferFileName) override;

private:
    int Access(unsigned short device);
    bool Transact(const Transfer& transfer, const std::string& path);
    Transfer Begin(unsigned short device);

    const Search m_search;
    const std::function<void()> m_onSuccess;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    Transfer m_transfer;
    unsigned m_failing = 0;
    bool m_throws = false;
    unsigned m_value = 1;
    unsigned m_releases = 0;
    int m_held = 0;
    bool m_aborted = false;
    bool m_noCall = false;
};

#endif
