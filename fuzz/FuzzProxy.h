#ifndef FUZZ_FUZZPROXY_H
#define FUZZ_FUZZPROXY_H

#include <functional>
#include <mutex>
#include <string>
#include <utility>

#include "simdevice/RelayProxy.h"
#include "simdevice/SimDevice.h"

/// Hands the engine's calls on to the simulated device: checks them, and makes some fail or throw.
///
/// Any thread may call any operation.
class FuzzProxy : public RelayProxy {
public:
    static constexpr char kLanding[] = "/var/local/tal/pldserver/3/";
    static constexpr char kStaging[] = "/var/local/tal/pldserver/";

    /// The end of a transfer: as the device ends it, false, or an exception.
    enum class Outcome { DEVICE, FAILURE, EXCEPTION };

    /// @param device     must outlive this object
    /// @param onSuccess  called when the engine writes "SUCCESS"
    FuzzProxy(SimDevice& device, std::function<void()> onSuccess)
        : RelayProxy(device), m_onSuccess(std::move(onSuccess)) {}

    /// Bit n of `bits` makes the point access fail that comes after n others; the first eight count.
    ///
    /// @param throws  fail with an exception
    void FailPoints(unsigned bits, bool throws);

    /// Sets the end of the transfers that begin from now on.
    void SetOutcome(Outcome outcome);

    /// Makes every later call a finding.
    void ExpectNoCall();

protected:
    int Before(const ProxyCall& call) override;
    bool DoGetDevFile(unsigned short device, const std::string& option, const std::string& fileName) override;
    bool DoPutDevFile(unsigned short device, const std::string& directory, const std::string& fileName,
                      const std::string& xferFileName) override;

private:
    template <typename Transfer>
    bool End(Transfer transfer);

    const std::function<void()> m_onSuccess;
    std::mutex m_mutex;  // guards all below; a leaf
    unsigned m_failing = 0;
    bool m_throws = false;
    Outcome m_outcome = Outcome::DEVICE;
    bool m_noCall = false;
};

#endif
