#include "platform/KyStringUtils.h"

void KyStringUtils::Trim(std::string& text) {
    // Not isspace(): it depends on the locale.
    const char* const blanks = " \t\n\r\v\f";
    text.erase(text.find_last_not_of(blanks) + 1);  // npos + 1 is 0
    text.erase(0, text.find_first_not_of(blanks));
}
