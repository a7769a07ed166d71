#ifndef PLATFORM_TAL_FILEUTILS_H
#define PLATFORM_TAL_FILEUTILS_H

#include <string>

/// File helpers of the platform.
namespace tal_fileutils {

/// Creates a directory. An existing directory keeps its mode, even if another process creates it at the same
/// time.
///
/// @param path     the directory, with or without a trailing "/"
/// @param mode     permission bits of every directory that the call creates; the umask does not apply
/// @param parents  true to create missing parent directories too; with false, a missing parent is a failure
/// @return true if the directory exists when the call returns; false otherwise, with `errno` set
///
/// Any thread may call it. Does not throw.
bool MakeDirPath(const std::string& path, unsigned int mode, bool parents);

}  // namespace tal_fileutils

#endif
