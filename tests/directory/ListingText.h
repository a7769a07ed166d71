#ifndef DIRECTORY_LISTINGTEXT_H
#define DIRECTORY_LISTINGTEXT_H

#include <climits>
#include <locale>
#include <string>
#include <vector>

#include "directory/KyTferDirectory.h"

/// An entry's values, joined by bars; behind them the path if there is one.
inline std::string Text(const KyTferDirEntry& entry) {
    return entry.GetOrigFileName() + '|' + entry.GetXferFileName() + '|' + entry.GetFileType() + '|' +
           std::to_string(entry.GetFileSizeInBytes()) + '|' + std::to_string(entry.GetDateTime()) +
           entry.GetPath();
}

inline std::vector<std::string> Texts(const std::vector<KyTferDirEntry>& entries) {
    std::vector<std::string> texts;
    for (const KyTferDirEntry& entry : entries)
        texts.push_back(Text(entry));
    return texts;
}

inline std::vector<std::string> Texts(const KyTferDirectory& directory) {
    return Texts(directory.GetEntryList(0, UINT_MAX));
}

/// As long as it lives, numbers of the process's locale are grouped by threes with that separator.
class GroupingLocale {
public:
    explicit GroupingLocale(char separator)
        : m_before(std::locale::global(std::locale(std::locale(), new Grouping(separator)))) {}
    ~GroupingLocale() { std::locale::global(m_before); }

private:
    struct Grouping : std::numpunct<char> {
        explicit Grouping(char separator) : m_separator(separator) {}
        char do_thousands_sep() const override { return m_separator; }
        std::string do_grouping() const override { return "\3"; }
        const char m_separator;
    };
    const std::locale m_before;
};

#endif
