#ifndef DEMO_OUTSIDEPATH_H
#define DEMO_OUTSIDEPATH_H

#include <string>

namespace ky_demo {

/// The path that a file has for those outside of the sandbox, which shows directories of theirs under other
/// names. The same path where that cannot be told, and for a file that exists inside only.
///
/// @param path  absolute path of the file
std::string OutsidePath(const std::string& path);

}  // namespace ky_demo

#endif
