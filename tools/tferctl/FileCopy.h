#ifndef TFERCTL_FILECOPY_H
#define TFERCTL_FILECOPY_H

#include <cstdint>
#include <string>

#include "platform/KyFd.h"

namespace ky_tferctl {

/// Opens a regular file for reading; anything else is refused without a wait. Throws a Failure.
KyFd OpenRegularFile(const std::string& path);

/// Writes all of `from` to `to`, which has the path `toPath`, and has it stored.
///
/// @param size  number of bytes that there must be
/// Throws a Failure.
void CopyBytes(const KyFd& from, const std::string& fromPath, const KyFd& to, const std::string& toPath,
               std::uint64_t size);

/// The Failure for the system call on `path` that has just failed. @param what  for example "read"
[[noreturn]] void FailOn(const char* what, const std::string& path);

}  // namespace ky_tferctl

#endif
