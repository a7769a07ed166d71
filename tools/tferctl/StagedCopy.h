#ifndef TFERCTL_STAGEDCOPY_H
#define TFERCTL_STAGEDCOPY_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "platform/KyFd.h"
#include "tferctl/Leftover.h"

namespace ky_tferctl {

/// A copy of a file for the service to keep. The service moves what it is to send into its staging directory,
/// which works only within one file system, and deletes what it cannot move: so it gets a copy, in a private
/// directory below the staging directory. What the service has not taken goes with the object.
class StagedCopy {
public:
    /// Makes the copy under the file's own name, for the staging directory's group to move. Throws a Failure.
    explicit StagedCopy(const std::string& source);

    const std::string& Name() const { return m_name; }  ///< of the file, without directories
    const std::string& Path() const { return m_path; }  ///< of the copy, absolute
    std::uint64_t Size() const { return m_size; }

private:
    void MakeDirectory();
    KyFd MakeFile();

    const std::string m_name;
    std::uint64_t m_size = 0;
    gid_t m_group = 0;
    std::string m_directoryPath;
    std::string m_path;
    std::optional<Leftover> m_directory;
    std::optional<Leftover> m_file;
};

}  // namespace ky_tferctl

#endif
