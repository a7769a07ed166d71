#ifndef TFERCTL_OPTIONS_H
#define TFERCTL_OPTIONS_H

#include <chrono>
#include <limits>
#include <optional>
#include <string>

namespace ky_tferctl {

enum class Command { STATUS, LIST, GET, PUT, CANCEL };

/// What the command line says.
struct Options {
    Command command = Command::STATUS;
    std::string subject;  ///< the file's name or path, or the transfer to cancel
    std::string output;   ///< where a fetched file goes; empty: it stays in the download directory
    unsigned int skip = 0;
    unsigned int take = std::numeric_limits<unsigned int>::max();
    bool json = false;
    bool watch = false;
    bool wait = true;                            ///< for the end of somebody else's transfer
    std::chrono::duration<double> timeOut{300};  ///< how long a record may stay as it is
};

/// Reads the command line. @param exitStatus  set if there is nothing to run
/// @return nothing after the help and the version, which are printed, and after a mistake, which is told on
/// standard error
std::optional<Options> ParseOptions(int argc, char** argv, int& exitStatus);

}  // namespace ky_tferctl

#endif
