#ifndef DEMO_OPTIONS_H
#define DEMO_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

namespace ky_demo {

/// What the command line says.
struct Options {
    /// Paths of readable regular files with different base names; may be empty.
    std::vector<std::string> files;
};

/// Reads the command line. @param exitStatus  set if there is nothing to run
/// @return nothing after the help, which is printed, and after a mistake, which is told on standard error
std::optional<Options> ParseOptions(int argc, char** argv, int& exitStatus);

}  // namespace ky_demo

#endif
