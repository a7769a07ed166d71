#ifndef FUZZ_DEVICESIDE_H
#define FUZZ_DEVICESIDE_H

#include <memory>
#include <string>

#include "engine/KyTferClient.h"
#include "fuzz/Fuzz.h"
#include "fuzz/FuzzProxy.h"
#include "fuzz/RecordCheck.h"

/// The actions of the device, as the input says: it writes points, delivers files, and sets the faults of
/// transfers and proxy.
class DeviceSide {
public:
    static constexpr char kDirectory[] = "/var/local/tal/device";  ///< of the device's files

    /// Creates the device's files, and the device that the input describes.
    static std::unique_ptr<SimDevice> MakeDevice(unsigned search, unsigned value);

    /// Sets the receiver of the device's changes. All arguments must outlive the device.
    DeviceSide(fuzz::Input& input, SimDevice& device, FuzzProxy& proxy, KyTferClient& engine,
               RecordCheck& check);

    /// Takes one of the steps 7 to 15, modulo 16, and delivers the changes. Other steps only deliver.
    void Step(unsigned step);

    /// Ends all faults: later transfers succeed, hanging ones go on. The device still answers no request.
    void ResetFaults();

    /// A file name; not all are valid.
    static std::string Name(fuzz::Input& input);

private:
    void SetTransfers();
    void FailPoints();
    void Land(const std::string& path);
    void SetFault(const SimFault& fault);

    fuzz::Input& m_input;
    SimDevice& m_device;
    FuzzProxy& m_proxy;
    KyTferClient& m_engine;
};

#endif
