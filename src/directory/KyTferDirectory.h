#ifndef DIRECTORY_KYTFERDIRECTORY_H
#define DIRECTORY_KYTFERDIRECTORY_H

#include <cstddef>
#include <string>
#include <vector>

#include "directory/KyTferDirEntry.h"
#include "messages/KyTferExport.h"
#include "messages/KyTferStatusMsg.h"

namespace ky_directory {
class BlankSeparatedReader;
}

/// The managed device's directory listing: entries in the order in which they were added, and pages of them
/// as copies or as JSON.
///
/// A listing starts empty and only grows; nothing is sorted, merged or removed. There is no lock: one thread
/// fills a listing, and once it is filled any number of threads may read it. Only ParseFile blocks, for the
/// file it reads.
///
/// No operation throws; each one tells what it does if memory runs out. Only copies of a listing throw: they
/// throw std::bad_alloc.
class KYTFER_EXPORT KyTferDirectory {
public:
    KyTferDirectory();
    virtual ~KyTferDirectory();

    /// Reads a comma-separated listing file and adds its entries to those that are there already.
    ///
    /// The first line starts with the listing's version, the second one holds column titles. Every other line
    /// is an entry: file name, transfer name, type, size in bytes and date, each ended by a comma, a line
    /// feed or a carriage return. A field that starts with a double quote may hold commas, and two quotes for
    /// one; if that quote is not closed before the last character of the line, this field and the rest of the
    /// line are dropped. Text behind the last comma or line end is no field. A line with fewer fields repeats
    /// the values of the entry before it; further fields are ignored.
    ///
    /// A size is a number from -2147483648 to 2147483647, whichever is nearest to what is written; a negative
    /// one counts from 4294967296 down. A date with a "-" in it is local standard time without daylight
    /// saving, as in 2024-03-15T08:30:00.250; any other is a number of seconds since 1970-01-01 UTC. Dates
    /// before 1970 are stored as 0, those beyond the range of the time stamp as its largest value.
    ///
    /// Lines are read as wide characters of the process's locale, of which the low 8 bits are kept, in pieces
    /// of 1023 characters that count as lines of their own, each up to its first NUL. The file ends with the
    /// first byte that the locale has no character for. It also ends, with an error in the log, where its
    /// entries would take far more memory than the file itself, which needs hundreds of thousands of lines
    /// that are all but empty.
    ///
    /// @param fileName  path of the listing file
    /// @return true if both header lines could be read, whatever the entries were; false with an error in the
    ///         log otherwise, or if memory runs out for an entry. Entries that were added before a failure stay.
    bool ParseFile(const std::string& fileName);

    /// Adds one entry behind the others; the arguments are those of KyTferDirEntry. Without memory for it,
    /// nothing is added and an error is logged.
    void AddEntry(const std::string& path, const std::string& origFileName, const std::string& xferFileName,
                  const std::string& fileType, unsigned int fileSizeInBytes, unsigned long long dateTime);

    /// Finds the first entry with this path and transfer file name, both compared byte for byte. Entries that
    /// were read from a listing have an empty path.
    ///
    /// @param path          directory on the device, as the entry has it
    /// @param xferFileName  transfer file name, as the entry has it
    /// @param entry         overwritten with a copy of what was found, untouched otherwise
    /// @return whether there is such an entry; false also if memory runs out
    bool GetDirEntry(const std::string& path, const std::string& xferFileName, KyTferDirEntry& entry) const;

    /// Copies of a page's entries. Takes as long as the page is, whatever the size of the listing.
    ///
    /// @param skip  number of entries before the page; the page is empty if there are no more than that
    /// @param take  most entries that the page may have; 0 gives an empty page
    /// @return the entries in their order; none if memory runs out
    std::vector<KyTferDirEntry> GetEntryList(unsigned int skip, unsigned int take) const;

    /// A page as a JSON document: several lines, sorted keys, no blank after a colon, no final line end. It
    /// holds the arguments as they are, the number of all entries and the page's entries. Takes as long as
    /// the page is.
    ///
    /// @param context  anything; handed back in the document, unless it is not valid UTF-8
    /// @param skip     as for GetEntryList
    /// @param take     as for GetEntryList
    /// @param filter   not applied; the document always says that there is none
    /// @param status   of the transaction that brought the listing
    /// @return the document; the empty string if memory runs out
    std::string GetEntryListAsJSONString(const std::string& context, unsigned int skip, unsigned int take,
                                         const std::string& filter, KyTferStatusMsg::TferStatus status) const;

    /// The same document for no listing at all: with 0 entries and none in the page.
    static std::string GetEmptyList(const std::string& context, unsigned int skip, unsigned int take,
                                    const std::string& filter, KyTferStatusMsg::TferStatus status);

    /// Sets the members of a listing document that describe its page, all but the files.
    ///
    /// @param doc         a JSON object, which stays the caller's
    /// @param context     as for GetEntryListAsJSONString, like all but the next
    /// @param skip        number of entries before the page
    /// @param take        most entries of the page
    /// @param totalFiles  number of entries in the listing
    /// @param filter      not applied
    /// @param status      of the transaction that brought the listing
    static void PutHeaderData(json_t* doc, const std::string& context, unsigned int skip, unsigned int take,
                              unsigned int totalFiles, const std::string& filter,
                              KyTferStatusMsg::TferStatus status);

protected:
    /// The number at the start of the file that ParseFile read last, its low 8 bits; 0 before.
    unsigned char m_version;

private:
    friend class ky_directory::BlankSeparatedReader;

    struct Page {
        size_t first;
        size_t length;
    };

    void Reserve(size_t count);
    void Append(const std::string& path, const std::string& origFileName, const std::string& xferFileName,
                const std::string& fileType, unsigned int fileSizeInBytes, unsigned long long dateTime);
    Page GetPage(unsigned int skip, unsigned int take) const;
    json_t* GetPageAsJSONArray(unsigned int skip, unsigned int take) const;

    std::vector<KyTferDirEntry> m_entries;
};

#endif
