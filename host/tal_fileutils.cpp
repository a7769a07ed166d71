#include "platform/tal_fileutils.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

/// Sets the mode of a directory that this process has just created: the umask may have cleared bits.
///
/// Does not follow links: another process that can write to the parent could have replaced the directory.
/// Ignores a failure, since the mode is not wider than requested.
void SetMode(const char* path, mode_t mode) {
    const int directory = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (directory >= 0) {
        (void)fchmod(directory, mode);
        close(directory);
    } else if (errno == EACCES) {
        // The umask has cleared the owner's read permission. fchmodat() does not need it, but older kernels
        // need /proc.
        const int ignored = fchmodat(AT_FDCWD, path, mode, AT_SYMLINK_NOFOLLOW);
        (void)ignored;
    }
}

/// Creates one directory whose parent exists.
bool MakeOne(const char* path, mode_t mode) {
    if (mkdir(path, mode) == 0) {
        SetMode(path, mode);
        return true;
    }
    // If the directory exists, mkdir() may fail with another error than EEXIST: EROFS or EACCES.
    const int error = errno;
    struct stat found;
    if (stat(path, &found) == 0 && S_ISDIR(found.st_mode)) return true;
    errno = error == EEXIST ? ENOTDIR : error;
    return false;
}

/// Creates the missing parents of `path`, from the top. Restores `path`.
bool MakeParents(char* path, mode_t mode) {
    for (char* slash = std::strchr(path + 1, '/'); slash != nullptr; slash = std::strchr(slash + 1, '/')) {
        *slash = '\0';
        const bool made = MakeOne(path, mode);
        *slash = '/';
        if (!made) return false;
    }
    return true;
}

/// Copies `path` without trailing slashes. @return 0, or the error number of a bad path
int CopyPath(const std::string& path, char (&copy)[PATH_MAX]) {
    size_t length = path.size();
    while (length > 1 && path[length - 1] == '/')
        --length;
    if (length == 0) return ENOENT;
    if (length >= sizeof copy) return ENAMETOOLONG;
    if (path.find('\0') < length) return EINVAL;
    path.copy(copy, length);
    copy[length] = '\0';
    return 0;
}

}  // namespace

bool tal_fileutils::MakeDirPath(const std::string& path, unsigned int mode, bool parents) {
    char copy[PATH_MAX];
    const int error = CopyPath(path, copy);
    if (error != 0) {
        errno = error;
        return false;
    }
    const mode_t bits = mode & 07777;
    return (!parents || MakeParents(copy, bits)) && MakeOne(copy, bits);
}
