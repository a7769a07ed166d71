#ifndef SERVICE_SERVICEOPTIONS_H
#define SERVICE_SERVICEOPTIONS_H

#include <cstdint>
#include <map>
#include <string>

#include "service/TferService.h"
#include "simdevice/SimFault.h"

/// What the command line says.
struct ServiceOptions {
    unsigned short deviceId = 0;
    /// Milliseconds between two looks of a monitor at the arriving file.
    unsigned int pollPauseMs = TferService::kDefaultPollPauseMs;
    std::string simulatedDirectory;           ///< directory of the simulated device's files
    std::uint64_t lineRate = 0;               ///< of the simulated line, in bytes per second; 0 for unlimited
    bool usbOnly = false;                     ///< the simulated device has the USB transport alone
    std::map<SimOperation, SimFault> faults;  ///< how its transfers go wrong
};

/// Reads the command line; prints help, version or what is wrong with it.
///
/// @param exitStatus  set if the program is to end at once
/// @return true if it is to go on with `options`
bool ParseServiceOptions(int argc, char** argv, ServiceOptions& options, int& exitStatus);

#endif
