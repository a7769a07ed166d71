#ifndef DIRECTORY_KYTFERDIRENTRY_H
#define DIRECTORY_KYTFERDIRENTRY_H

#include <string>

#include "messages/KyTferExport.h"

struct json_t;

/// One file of the managed device's directory: its names, type, size and time stamp.
///
/// A plain value: it owns its texts, and copies are independent. Texts are bytes; any text, size and time
/// stamp is accepted. There is no lock; threads may read an entry at the same time while none writes it. No
/// operation blocks.
///
/// Constructors with arguments, Init, copies and copy assignment throw std::bad_alloc if memory runs out; an
/// entry that they were to overwrite stays as it was. Nothing else throws. Moves take no memory.
class KYTFER_EXPORT KyTferDirEntry {
public:
    /// An entry with empty texts, size 0 and time stamp 0.
    KyTferDirEntry();

    /// @param path             directory of the file on the device, with or without a "/" at its end; may be
    ///                         empty, and is for every entry that was read from a listing
    /// @param origFileName     the file's own name on the device
    /// @param xferFileName     the name under which the file is transferred
    /// @param fileType         the type as the device calls it
    /// @param fileSizeInBytes  size in bytes
    /// @param dateTime         time stamp in nanoseconds since 1970-01-01 00:00:00 UTC
    KyTferDirEntry(const std::string& path, const std::string& origFileName, const std::string& xferFileName,
                   const std::string& fileType, unsigned int fileSizeInBytes, unsigned long long dateTime);

    /// @{
    /// All fields of `other`. A moved-from entry may be assigned to or destroyed.
    KyTferDirEntry(const KyTferDirEntry& other);
    KyTferDirEntry(KyTferDirEntry&& other) noexcept;
    /// @}
    virtual ~KyTferDirEntry();

    /// @{
    /// As the constructors.
    KyTferDirEntry& operator=(const KyTferDirEntry& other);
    KyTferDirEntry& operator=(KyTferDirEntry&& other) noexcept;
    /// @}

    /// Overwrites all that the entry holds; the arguments are those of the constructor.
    void Init(const std::string& path, const std::string& origFileName, const std::string& xferFileName,
              const std::string& fileType, unsigned int fileSizeInBytes, unsigned long long dateTime);

    /// @{
    /// The field as it was given; a text stays the entry's own, and valid until the entry changes.
    const std::string& GetPath() const { return m_path; }
    const std::string& GetOrigFileName() const { return m_origFileName; }
    const std::string& GetXferFileName() const { return m_xferFileName; }
    const std::string& GetFileType() const { return m_fileType; }
    unsigned int GetFileSizeInBytes() const { return m_fileSizeInBytes; }
    /// @}

    /// Nanoseconds since 1970-01-01 00:00:00 UTC.
    unsigned long long GetDateTime() const { return m_dateTime; }

    /// The time stamp as UTC, cut to whole seconds, in the form "2024-03-15 08:30:00Z". The empty
    /// string if memory has run out, as from the operations below.
    std::string GetDateTimeAsString() const;

    /// The entry as a new JSON object, whose one reference is the caller's. A text that is not valid UTF-8 is
    /// missing from it; one with a NUL byte ends there. Null if memory has run out.
    json_t* GetEntryAsJSONObject() const;

    /// That object as text: several lines, sorted keys, no blank after a colon, no final line end. The empty
    /// string if memory has run out.
    std::string GetEntryAsJSONString() const;

    /// The transfer file name behind the path and a "/"; the name alone if the path is empty. A "/" at the
    /// path's end is not taken away.
    std::string GetFullXferFilePath() const;

    /// The same with the file's own name.
    std::string GetFullOrigFilePath() const;

private:
    std::string InPath(const std::string& fileName) const;

    std::string m_path;
    std::string m_origFileName;
    std::string m_xferFileName;
    std::string m_fileType;
    unsigned int m_fileSizeInBytes;
    unsigned long long m_dateTime;
};

#endif
