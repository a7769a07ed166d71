#ifndef TFERCTL_OPTIONS_H
#define TFERCTL_OPTIONS_H

#include <chrono>
#include <limits>
#include <optional>
#include <string>

namespace ky_tferctl {

enum class Command { STATUS, LIST, GET, PUT, CANCEL };

/// The command line.
struct Options {
    Command command = Command::STATUS;
    std::string deviceFile;     ///< get: transfer name or file name on the device
    std::string outputPath;     ///< get: copy of the fetched file; empty for none
    std::string sourcePath;     ///< put: the file to send
    std::string transactionId;  ///< cancel: the transaction to end; empty for any
    unsigned int skip = 0;
    unsigned int take = std::numeric_limits<unsigned int>::max();
    bool json = false;
    bool watch = false;
    bool wait = true;                            ///< for another transfer that is in progress
    std::chrono::duration<double> timeOut{300};  ///< longest time without progress
};

/// Parses the command line.
///
/// @param exitStatus  set if there is nothing to run
/// @return nothing if help, the version or an error has been printed instead
std::optional<Options> ParseOptions(int argc, char** argv, int& exitStatus);

}  // namespace ky_tferctl

#endif
