#include "engine/KyFlagFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "engine/KyTferClientConstants.h"
#include "platform/KyDlog.h"

namespace ky_engine {

namespace {

void LogFailure(const char* action, const char* path, const char* function, int error) {
    __dlog_printfex(KY_DLOG_ERROR, kSource, function, "Error %s '%s' (%d: %s)", action, path, error,
                    strerror(error));
}

// The files lie where others may write: a symbolic link there is not followed, and a FIFO is not waited for.
void Create(const char* path, const char* function) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0666);
    if (fd < 0) return LogFailure("creating", path, function, errno);
    close(fd);
}

void Remove(const char* path, const char* function) {
    if (unlink(path) == 0) return;
    const int error = errno;
    struct stat info = {};
    if (stat(path, &info) == 0) LogFailure("deleting", path, function, error);
}

void Set(bool exists, const char* path, const char* function) {
    if (exists) {
        Create(path, function);
    } else {
        Remove(path, function);
    }
}

}  // namespace

void SetDmpSupported(bool supported) {
    Set(supported, "/var/tmp/dmp/dmp_supported", "SetDmpSupported");
}

void SetForceFullSpeed(bool force) {
    Set(force, "/var/tmp/dmp/usb_force_fs", "Init");
}

}  // namespace ky_engine
