#include "engine/KyTransaction.h"

#include <sys/stat.h>

#include <climits>

namespace ky_engine {

// Path traversal: a listing's name comes from the device.
void Transaction::SetFile(const std::string& fileName, const std::string& inDirectory) {
    transferName = fileName;
    directory = inDirectory;
    path = inDirectory + fileName;
    leavesDirectory = ("/" + fileName + "/").find("/../") != std::string::npos;
}

unsigned int SaturateTo32Bits(unsigned long long size) {
    return size < UINT_MAX ? static_cast<unsigned int>(size) : UINT_MAX;
}

bool GetFileSize(const std::string& path, unsigned long long& size) {
    struct stat info = {};
    if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
    size = static_cast<unsigned long long>(info.st_size);
    return true;
}

}  // namespace ky_engine
