#ifndef TFERCTL_FILECOPY_H
#define TFERCTL_FILECOPY_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "platform/KyFd.h"
#include "tferctl/Signals.h"

namespace ky_tferctl {

/// A file that appears at its path complete or not at all. The bytes are written to a temporary file beside
/// it, which then replaces an older file, or a symbolic link, in one step.
class OutputFile {
public:
    /// Creates the temporary file. Throws a Failure if that fails, or if the path is not that of a regular
    /// file.
    explicit OutputFile(const std::string& path);

    /// Copies the file `source` to the path. To be called once. Throws a Failure, also if `source` does not
    /// have `size` bytes.
    void Fill(const std::string& source, std::uint64_t size);

private:
    void MakeTemporary(const std::string& directory);

    const std::string m_path;
    mode_t m_mode;
    std::string m_temporaryPath;
    KyFd m_file;
    std::optional<TemporaryPath> m_temporary;
};

/// A copy of a file that the service may take over. The service moves a pushed file to its staging directory,
/// which works only within one file system, and removes a file that cannot be moved. The copy is in a private
/// directory below the staging directory. The destructor removes what the service has not moved.
class StagedCopy {
public:
    /// Copies the file. The staging directory's group may move the copy. Throws a Failure.
    explicit StagedCopy(const std::string& source);

    const std::string& FileName() const { return m_fileName; }  ///< of the source and of the copy
    const std::string& Path() const { return m_path; }          ///< of the copy, absolute
    std::uint64_t Size() const { return m_size; }               ///< in bytes

private:
    void MakeDirectory();
    KyFd MakeFile();

    const std::string m_fileName;
    std::uint64_t m_size = 0;
    gid_t m_group = 0;
    std::string m_directoryPath;
    std::string m_path;
    std::optional<TemporaryPath> m_directory;
    std::optional<TemporaryPath> m_file;
};

}  // namespace ky_tferctl

#endif
