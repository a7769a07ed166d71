#ifndef SIMDEVICE_SIMFILES_H
#define SIMDEVICE_SIMFILES_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/KyFd.h"

/// A file opened for reading, or the text of a listing.
struct SimSource {
    KyFd file;                                ///< none for a listing
    std::shared_ptr<const std::string> text;  ///< null for a file
    std::uint64_t size = 0;                   ///< bytes, when it was opened

    /// Opens a regular file. @return false if there is none that can be read
    bool OpenFile(const std::string& path);

    /// Reads at most `count` bytes. @return their number, 0 behind the end, -1 on error
    ssize_t ReadAt(std::uint64_t offset, char* bytes, std::size_t count) const;
};

/// The files of the device: the regular files of a real directory, hidden ones left out, and its last
/// listing.
///
/// A listing consists of tokens, so white space of a name becomes "_" in it. The transfer name of such a file
/// stands for it until the next listing is made, and so does the one of a file that is called like a word of
/// the request conversation. The listing itself is kept in memory; it has a name that no file has, and does
/// not list itself.
///
/// Any thread may call any operation; making a listing blocks the others while it reads the directory.
class SimFiles {
public:
    /// @param directory  ends with "/"
    explicit SimFiles(std::string directory);

    /// True for a name that can be a file of the device: not empty, not hidden, and no path.
    static bool IsFileName(const std::string& name);

    /// Opens the file, or the listing, that the card calls `name`. @return false if the device has none
    bool Open(const std::string& name, SimSource& source) const;

    bool IsListing(const std::string& name) const;

    /// Makes a listing of the files as they are now; replaces the one before. @return its name
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
    std::map<std::string, std::string> m_transferNames;  // those that differ from the name of their file
    std::string m_listingName;                           // empty before the first listing
    std::shared_ptr<const std::string> m_listing;
};

#endif
