#ifndef PLATFORM_KYSTRINGUTILS_H
#define PLATFORM_KYSTRINGUTILS_H

#include <string>

/// Text helpers of the platform.
class KyStringUtils {
public:
    /// Removes white space (blank, tab, line feed, carriage return, vertical tab, form feed) from both ends
    /// of `text`, in any locale. Any thread may call it. Does not throw.
    static void Trim(std::string& text);
};

#endif
