#ifndef SIMDEVICE_SIMFILES_H
#define SIMDEVICE_SIMFILES_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "host/KyFd.h"
#include "simdevice/SimAbort.h"
#include "simdevice/SimFaults.h"

/// A file opened for reading, or the text of a listing.
struct SimSource {
    KyFd file;                                ///< none for a listing
    std::shared_ptr<const std::string> text;  ///< null for a file
    std::uint64_t size = 0;                   ///< bytes, at the time of opening

    /// Opens a regular file. @return false if there is none that can be read
    bool OpenFile(const std::string& path);

    /// Reads at most `count` bytes. @return their number, 0 at the end, -1 on error
    ssize_t ReadAt(std::uint64_t offset, char* bytes, std::size_t count) const;

    /// Copies the source in chunks to the descriptor `target`, with the faults of `fault`. Blocks as long as
    /// the line takes.
    ///
    /// @param lineRate  bytes per second, 0 for unlimited
    /// @param call      the file call that copies
    /// @return false if the call has ended or a file operation has failed; the bytes copied until then remain
    bool CopyTo(int target, std::uint64_t lineRate, const SimFault& fault, const SimAbort::Call& call) const;
};

/// The files of the device, and its last listing. The files are the regular files of a real directory that are
/// not hidden.
///
/// The items of a listing contain no white space, so "_" replaces white space in names. If that changes the name of
/// a file, or if the name is a word that requests and answers use, such as "READY", the file gets a transfer name
/// other than its name. That transfer name is valid until the next listing. The listing is kept in memory. The name of
/// the listing differs from the names of all files, and the listing does not list itself.
///
/// Any thread may call any operation. While MakeListing reads the directory, the other operations wait.
class SimFiles {
public:
    /// @param directory  ends with "/"
    explicit SimFiles(std::string directory) : m_directory(std::move(directory)) {}

    /// True for a valid file name of the device: not empty, not hidden, not a path.
    static bool IsFileName(const std::string& name);

    /// Opens a file or the listing by its transfer name. @return false if the device has none
    bool Open(const std::string& name, SimSource& source) const;

    bool IsListing(const std::string& name) const;

    /// Makes a listing of the current files; replaces the last one. @return its name
    std::string MakeListing();

    /// Text of the last listing; empty before the first.
    std::string ListingText() const;

private:
    struct Entry {
        std::string name;
        std::uint64_t size;
        std::uint64_t modified;  // nanoseconds since 1970
    };

    std::vector<Entry> Scan() const;
    std::string FreeName(const std::vector<Entry>& entries, const std::string& stem,
                         const std::string& ending) const;
    void AppendEntry(const std::vector<Entry>& entries, const Entry& entry, std::string& text);

    const std::string m_directory;

    mutable std::mutex m_mutex;                          // guards all below; a leaf
    std::map<std::string, std::string> m_transferNames;  // of files whose transfer name differs
    std::string m_listingName;                           // empty before the first listing
    std::shared_ptr<const std::string> m_listing;
};

#endif
