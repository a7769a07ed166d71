#ifndef PLATFORM_TAL_FILEUTILS_H
#define PLATFORM_TAL_FILEUTILS_H

#include <string>

/// File helpers of the platform.
namespace tal_fileutils {

/// Creates a directory. One that is there already is fine and keeps its mode, and so is one that another
/// process creates at the same moment.
///
/// @param path     the directory, with or without a "/" at its end
/// @param mode     permission bits of every directory that the call creates, whatever the process's umask
/// @param parents  true to create missing parent directories too
/// @return true if the directory exists when the call returns; false otherwise, with `errno` set
bool MakeDirPath(const std::string& path, unsigned int mode, bool parents);

}  // namespace tal_fileutils

#endif
