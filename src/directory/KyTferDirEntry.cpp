#include "directory/KyTferDirEntry.h"

#include <cstdio>
#include <ctime>
#include <exception>

#include "messages/KyJson.h"
#include "platform/KyStringUtils.h"

namespace {

constexpr unsigned long long kNanosecondsPerSecond = 1000000000ULL;

using DateText = char[64];

void FormatDateTime(unsigned long long nanoseconds, DateText& text) {
    const auto seconds = static_cast<time_t>(nanoseconds / kNanosecondsPerSecond);
    struct tm utc = {};
    gmtime_r(&seconds, &utc);
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02dZ", utc.tm_year + 1900, utc.tm_mon + 1,
                  utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
}

}  // namespace

KyTferDirEntry::KyTferDirEntry() : m_fileSizeInBytes(0), m_dateTime(0) {}

KyTferDirEntry::KyTferDirEntry(const std::string& path, const std::string& origFileName,
                               const std::string& xferFileName, const std::string& fileType,
                               unsigned int fileSizeInBytes, unsigned long long dateTime)
    : m_path(path),
      m_origFileName(origFileName),
      m_xferFileName(xferFileName),
      m_fileType(fileType),
      m_fileSizeInBytes(fileSizeInBytes),
      m_dateTime(dateTime) {}

KyTferDirEntry::KyTferDirEntry(const KyTferDirEntry& other) = default;

KyTferDirEntry::KyTferDirEntry(KyTferDirEntry&& other) noexcept = default;

KyTferDirEntry::~KyTferDirEntry() = default;

// Copy and move: a failed memberwise assignment would mix the fields of both entries.
KyTferDirEntry& KyTferDirEntry::operator=(const KyTferDirEntry& other) {
    return *this = KyTferDirEntry(other);
}

KyTferDirEntry& KyTferDirEntry::operator=(KyTferDirEntry&& other) noexcept = default;

void KyTferDirEntry::Init(const std::string& path, const std::string& origFileName,
                          const std::string& xferFileName, const std::string& fileType,
                          unsigned int fileSizeInBytes, unsigned long long dateTime) {
    *this = KyTferDirEntry(path, origFileName, xferFileName, fileType, fileSizeInBytes, dateTime);
}

std::string KyTferDirEntry::GetDateTimeAsString() const {
    try {
        DateText buffer = {};
        FormatDateTime(m_dateTime, buffer);
        std::string text(buffer);
        KyStringUtils::Trim(text);
        return text;
    } catch (...) {
        return std::string();
    }
}

// Formats the date in a local array: a std::string of this length would allocate for each entry.
json_t* KyTferDirEntry::GetEntryAsJSONObject() const {
    try {
        DateText date = {};
        FormatDateTime(m_dateTime, date);
        ky_json::Ref entry(json_object());
        ky_json::SetText(entry, "path", m_path.c_str());
        ky_json::SetText(entry, "filename", m_origFileName.c_str());
        ky_json::SetText(entry, "tfername", m_xferFileName.c_str());
        ky_json::Set(entry, "filesize", json_integer(m_fileSizeInBytes));
        ky_json::SetText(entry, "filesizeunit", "bytes");
        ky_json::SetText(entry, "filetype", m_fileType.c_str());
        ky_json::SetText(entry, "filedate", date);
        return entry.release();
    } catch (const std::exception&) {
        return nullptr;
    }
}

std::string KyTferDirEntry::GetEntryAsJSONString() const {
    try {
        const ky_json::Ref entry(GetEntryAsJSONObject());
        return ky_json::Dump(entry, JSON_INDENT(2) | JSON_COMPACT | JSON_SORT_KEYS);
    } catch (const std::exception&) {
        return std::string();
    }
}

std::string KyTferDirEntry::GetFullXferFilePath() const {
    return InPath(m_xferFileName);
}

std::string KyTferDirEntry::GetFullOrigFilePath() const {
    return InPath(m_origFileName);
}

std::string KyTferDirEntry::InPath(const std::string& fileName) const {
    try {
        return m_path.empty() ? fileName : m_path + "/" + fileName;
    } catch (...) {
        return std::string();
    }
}
