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

/// The managed device's directory listing: a list of entries, and pages of it as copies or as JSON.
///
/// A listing starts empty. Entries are appended, never sorted, merged or removed. There is no lock: one thread fills a
/// listing; afterwards several threads may read it. Only ParseFile blocks, while it reads its file.
///
/// ParseFile reads comma-separated listing files. The listing files that KyTferClient fetches are blank-separated; the
/// library has no public operation that reads these.
///
/// Operations do not throw; each comment says what happens if memory runs out. Copying a listing throws
/// std::bad_alloc.
class KYTFER_EXPORT KyTferDirectory {
public:
    KyTferDirectory();
    virtual ~KyTferDirectory();

    /// Reads a comma-separated listing file and appends its entries.
    ///
    /// The first line starts with the version; the second has column titles. Every other line is an entry: file name,
    /// transfer name, type, size in bytes and date. A comma, a line feed or a carriage return ends each field; text
    /// after the last of these is ignored. A field that starts with a double quote may contain commas; in it, ""
    /// stands for one quote. If such a field has no closing quote, that field and the rest of the line are
    /// dropped. A missing field has the value of the previous entry; extra fields are ignored.
    ///
    /// A size is clamped to the range of a signed 32-bit number; a negative size n is stored as 4294967296 + n. A date
    /// that contains a "-" is local standard time without daylight saving, for example 2024-03-15T08:30:00.250. A date
    /// without a "-" is the number of seconds since 1970-01-01 UTC. Dates are clamped to the range of the time stamp.
    ///
    /// Lines are read as wide characters of the process's locale; the low 8 bits of each are kept. A line of more than
    /// 1023 characters is read as several lines of 1023 characters. A NUL ends a line. A byte that is invalid in the
    /// locale ends the file. Reading also ends, with an error in the log, if the entries take more than the sum of 64
    /// MiB and 16 bytes for each character read: only a file of very many nearly empty lines does that.
    ///
    /// @param fileName  path of the listing file
    /// @return true if both header lines were read, even if entries are bad or missing. False, with an error in the
    ///         log, if the file cannot be opened, a header line is missing, or memory runs out. Entries that were added
    ///         before stay.
    bool ParseFile(const std::string& fileName);

    /// Appends an entry. Takes the arguments of KyTferDirEntry's constructor. If memory runs out, logs an error and
    /// adds nothing.
    void AddEntry(const std::string& path, const std::string& origFileName, const std::string& xferFileName,
                  const std::string& fileType, unsigned int fileSizeInBytes, unsigned long long dateTime);

    /// Finds the first entry with this path and transfer name, both compared byte for byte.
    ///
    /// @param path          the entry's path; empty for entries of a listing file
    /// @param xferFileName  the entry's transfer name
    /// @param entry         receives a copy of the entry; unchanged if the result is false
    /// @return true if an entry was found; false also if memory runs out
    bool GetDirEntry(const std::string& path, const std::string& xferFileName, KyTferDirEntry& entry) const;

    /// Copies a page of entries. The time depends on the page, not on the listing.
    ///
    /// @param skip  number of entries before the page
    /// @param take  maximum number of entries in the page; 0 gives an empty page
    /// @return the entries in order; none if memory runs out
    std::vector<KyTferDirEntry> GetEntryList(unsigned int skip, unsigned int take) const;

    /// A page as a JSON document: indented, keys sorted, no blank after a colon, no final line end. Contains a version,
    /// context, skip, take and status, the number of all entries, an empty filter, and the page's entries. The time
    /// that the call takes depends on the length of the page, not of the listing.
    ///
    /// @param context  any text; returned in the document, omitted if it is not valid UTF-8
    /// @param skip     as for GetEntryList
    /// @param take     as for GetEntryList
    /// @param filter   ignored; the document has an empty filter
    /// @param status   of the transaction that fetched the listing
    /// @return the document; empty if memory runs out
    std::string GetEntryListAsJSONString(const std::string& context, unsigned int skip, unsigned int take,
                                         const std::string& filter, KyTferStatusMsg::TferStatus status) const;

    /// The same document for an empty listing.
    static std::string GetEmptyList(const std::string& context, unsigned int skip, unsigned int take,
                                    const std::string& filter, KyTferStatusMsg::TferStatus status);

    /// Sets all members of a listing document except the array of its files. If memory runs out, some members are
    /// missing.
    ///
    /// @param doc         a JSON object, not null; the caller keeps its reference
    /// @param context     as for GetEntryListAsJSONString
    /// @param skip        number of entries before the page
    /// @param take        maximum number of entries in the page
    /// @param totalFiles  number of entries in the listing
    /// @param filter      ignored
    /// @param status      of the transaction that fetched the listing
    static void PutHeaderData(json_t* doc, const std::string& context, unsigned int skip, unsigned int take,
                              unsigned int totalFiles, const std::string& filter,
                              KyTferStatusMsg::TferStatus status);

protected:
    /// Low 8 bits of the version in the file that ParseFile read last; 0 before.
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
