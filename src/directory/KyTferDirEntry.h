#ifndef DIRECTORY_KYTFERDIRENTRY_H
#define DIRECTORY_KYTFERDIRENTRY_H

#include <string>

#include "messages/KyTferExport.h"

struct json_t;

/// One file of the managed device's directory: names, type, size and time stamp.
///
/// A value: it owns its texts, and copies are independent. Any text, size and time stamp is accepted. There is no
/// lock: several threads may read an entry while no thread writes it. No operation blocks.
///
/// Constructors with arguments, Init, copies and copy assignment throw std::bad_alloc; the target entry is then
/// unchanged. Other operations do not throw. Moves do not allocate.
class KYTFER_EXPORT KyTferDirEntry {
public:
    /// An entry with empty texts, size 0 and time stamp 0.
    KyTferDirEntry();

    /// @param path             directory of the file on the device, with or without a "/" at its end; empty for
    ///                         entries of a listing file
    /// @param origFileName     file name: the file's own name on the device
    /// @param xferFileName     transfer name: the name of the file in requests and on the card
    /// @param fileType         the device's name for the type of the file
    /// @param fileSizeInBytes  size in bytes
    /// @param dateTime         time stamp in nanoseconds since 1970-01-01 00:00:00 UTC
    KyTferDirEntry(const std::string& path, const std::string& origFileName, const std::string& xferFileName,
                   const std::string& fileType, unsigned int fileSizeInBytes, unsigned long long dateTime);

    /// @{
    /// Copies or moves all fields. A moved-from entry may be assigned to or destroyed.
    KyTferDirEntry(const KyTferDirEntry& other);
    KyTferDirEntry(KyTferDirEntry&& other) noexcept;
    /// @}
    virtual ~KyTferDirEntry();

    /// @{
    /// As the constructors.
    KyTferDirEntry& operator=(const KyTferDirEntry& other);
    KyTferDirEntry& operator=(KyTferDirEntry&& other) noexcept;
    /// @}

    /// Overwrites all fields. Takes the constructor's arguments.
    void Init(const std::string& path, const std::string& origFileName, const std::string& xferFileName,
              const std::string& fileType, unsigned int fileSizeInBytes, unsigned long long dateTime);

    /// @{
    /// The field. A text belongs to the entry and is valid until the entry changes.
    const std::string& GetPath() const { return m_path; }
    const std::string& GetOrigFileName() const { return m_origFileName; }
    const std::string& GetXferFileName() const { return m_xferFileName; }
    const std::string& GetFileType() const { return m_fileType; }
    unsigned int GetFileSizeInBytes() const { return m_fileSizeInBytes; }
    /// @}

    /// Nanoseconds since 1970-01-01 00:00:00 UTC.
    unsigned long long GetDateTime() const { return m_dateTime; }

    /// The time stamp in UTC, truncated to whole seconds, in the form "2024-03-15 08:30:00Z". Empty if memory runs out.
    std::string GetDateTimeAsString() const;

    /// The entry as a new JSON object. The caller owns the one reference. Texts that are not valid UTF-8 are omitted; a
    /// text ends at its first NUL byte. Null if memory runs out.
    json_t* GetEntryAsJSONObject() const;

    /// The object of GetEntryAsJSONObject as text: indented, keys sorted, no blank after a colon, no final line end.
    /// Empty if memory runs out.
    std::string GetEntryAsJSONString() const;

    /// Path, "/" and transfer name; the name alone if the path is empty. A path that ends with "/" gives "//". Empty if
    /// memory runs out.
    std::string GetFullXferFilePath() const;

    /// The same with origFileName.
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
