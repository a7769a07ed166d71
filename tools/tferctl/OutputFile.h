#ifndef TFERCTL_OUTPUTFILE_H
#define TFERCTL_OUTPUTFILE_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "platform/KyFd.h"
#include "tferctl/Leftover.h"

namespace ky_tferctl {

/// A file that appears under its path whole, or not at all: it is written beside it under another name and
/// takes its place in one step, also that of an older file. Until then an older file stays as it is. A
/// symbolic link is replaced by the file.
class OutputFile {
public:
    /// Makes the other file, so that it is known early if that cannot be done. Throws a Failure, also if the
    /// path is a directory or another thing than a file.
    explicit OutputFile(const std::string& path);

    /// Copies the file `source` of `size` bytes to the path. To be called once. Throws a Failure.
    void Fill(const std::string& source, std::uint64_t size);

private:
    void MakeTemporary(const std::string& directory);

    const std::string m_path;
    mode_t m_mode;
    std::string m_temporary;
    KyFd m_file;
    std::optional<Leftover> m_leftover;
};

}  // namespace ky_tferctl

#endif
