#include "host/KyFifoDirectory.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <utility>

#include "platform/KyDlog.h"
#include "platform/KyIpcDirectory.h"
#include "platform/KyIpcFifoSession.h"
#include "platform/tal_fileutils.h"

namespace {

constexpr char kSystemDirectory[] = "/run/ky-ipc";
constexpr char kUserDirectory[] = "/tmp/ky-ipc-";
constexpr mode_t kGroupMode = 01770;  // sticky: members of the group cannot remove each other's FIFOs
constexpr mode_t kOwnerMode = 0700;
constexpr int kOpenFlags = O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC;

struct Place {
    std::string path;
    bool inTmp;  // any user may have created it
};

Place FindPlace() {
    const char* const named = secure_getenv("KY_IPC_DIR");
    if (named != nullptr && *named != '\0') return {named, false};
    struct stat found;
    if (geteuid() == 0 || lstat(kSystemDirectory, &found) == 0) return {kSystemDirectory, false};
    return {kUserDirectory + std::to_string(geteuid()), true};
}

int Refuse(const char* function, const char* what, const char* reason) {
    __dlog_printfex(KY_DLOG_WARNING, "KyFifoDirectory", function, "%s refused: %s", what, reason);
    return KyIpcFifoSession::IPC_REFUSED;
}

/// The status for the system call that has just failed on `what`.
int Fail(const char* function, const char* what) {
    const int error = errno;
    if (error == ENOENT) return KyIpcFifoSession::IPC_NO_FIFO;
    if (error == ENXIO) return KyIpcFifoSession::IPC_NO_READER;
    const char* const reason = std::strerror(error);
    if (error == ELOOP || error == ENOTDIR || error == EISDIR) return Refuse(function, what, reason);
    __dlog_printfex(KY_DLOG_WARNING, "KyFifoDirectory", function, "%s: %s", what, reason);
    return KyIpcFifoSession::IPC_FAILED;
}

bool IsFifo(const KyFd& file) {
    struct stat found;
    return fstat(file.Get(), &found) == 0 && S_ISFIFO(found.st_mode);
}

/// The FIFO that this process has created; without a descriptor if the file is no FIFO or has another owner.
KyMadeFifo OwnFifo(KyFd file) {
    struct stat found;
    const bool own = fstat(file.Get(), &found) == 0 && S_ISFIFO(found.st_mode) && found.st_uid == geteuid();
    return own ? KyMadeFifo{std::move(file), found.st_dev, found.st_ino} : KyMadeFifo();
}

bool Trusted(const struct stat& directory, bool inTmp) {
    if ((directory.st_mode & S_IWOTH) != 0) return false;
    return !inTmp || directory.st_uid == 0 || directory.st_uid == geteuid();
}

}  // namespace

bool KyFifoDirectory::FitName(const char* name) {
    return name != nullptr && *name != '\0' && std::strlen(name) <= NAME_MAX &&
           std::strchr(name, '/') == nullptr && std::strstr(name, "..") == nullptr &&
           std::strcmp(name, ".") != 0;
}

int KyFifoDirectory::Open() {
    const Place place = FindPlace();
    KyFd directory(open(place.path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat found;
    if (!directory || fstat(directory.Get(), &found) != 0) return Fail("Open", place.path.c_str());
    if (!Trusted(found, place.inTmp))
        return Refuse("Open", place.path.c_str(), "other users can write to it");
    m_directory = std::move(directory);
    return KyIpcFifoSession::IPC_OK;
}

int KyFifoDirectory::MakeFifo(const char* name, mode_t mode, KyMadeFifo& fifo) const {
    const int status = CreateFifo(name);
    if (status != KyIpcFifoSession::IPC_OK) return status;
    KyFd opened = OpenMade(name);
    if (!opened) {
        const int failure = Fail("MakeFifo", name);
        RemoveOld(name);
        return failure;
    }
    // Other writers of the directory could have replaced the FIFO before it was opened.
    KyMadeFifo made = OwnFifo(std::move(opened));
    if (!made.fd) return Refuse("MakeFifo", name, "not the FIFO that was created");
    if (fchmod(made.fd.Get(), mode & 0777) != 0) {
        const int failure = Fail("MakeFifo", name);
        RemoveFifo(name, made);
        return failure;
    }
    fifo = std::move(made);
    return KyIpcFifoSession::IPC_OK;
}

/// Replaces an older FIFO: it may hold bytes, and a service that replies to its creator may still have it
/// open.
int KyFifoDirectory::CreateFifo(const char* name) const {
    if (mkfifoat(m_directory.Get(), name, 0600) == 0) return KyIpcFifoSession::IPC_OK;
    if (errno != EEXIST) return Fail("CreateFifo", name);
    const int status = RemoveOld(name);
    if (status != KyIpcFifoSession::IPC_OK) return status;
    if (mkfifoat(m_directory.Get(), name, 0600) == 0) return KyIpcFifoSession::IPC_OK;
    return Fail("CreateFifo", name);
}

int KyFifoDirectory::RemoveOld(const char* name) const {
    struct stat found;
    if (fstatat(m_directory.Get(), name, &found, AT_SYMLINK_NOFOLLOW) != 0) return Fail("RemoveOld", name);
    if (!S_ISFIFO(found.st_mode)) return Refuse("RemoveOld", name, "not a FIFO");
    if (unlinkat(m_directory.Get(), name, 0) == 0) return KyIpcFifoSession::IPC_OK;
    return Refuse("RemoveOld", name, std::strerror(errno));
}

/// Opens the FIFO just created. If the umask has removed the owner's permissions, opens it with O_PATH, which
/// needs none, checks it, and restores them.
KyFd KyFifoDirectory::OpenMade(const char* name) const {
    KyFd fifo(openat(m_directory.Get(), name, O_RDWR | kOpenFlags));
    if (fifo || errno != EACCES) return fifo;
    const KyMadeFifo place = OwnFifo(KyFd(openat(m_directory.Get(), name, O_PATH | O_NOFOLLOW | O_CLOEXEC)));
    char link[32];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", place.fd.Get());
    if (!place.fd || chmod(link, 0600) != 0) return KyFd();
    return KyFd(open(link, O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

int KyFifoDirectory::OpenForWriting(const char* name, KyFd& fifo) const {
    KyFd found(openat(m_directory.Get(), name, O_WRONLY | kOpenFlags));
    if (!found) return Fail("OpenForWriting", name);
    if (!IsFifo(found)) return Refuse("OpenForWriting", name, "not a FIFO");
    fifo = std::move(found);
    return KyIpcFifoSession::IPC_OK;
}

int KyFifoDirectory::RemoveFifo(const char* name, const KyMadeFifo& fifo) const {
    struct stat named;
    if (fstatat(m_directory.Get(), name, &named, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? KyIpcFifoSession::IPC_OK : Fail("RemoveFifo", name);
    if (named.st_dev != fifo.device || named.st_ino != fifo.inode) return KyIpcFifoSession::IPC_OK;
    return unlinkat(m_directory.Get(), name, 0) == 0 ? KyIpcFifoSession::IPC_OK : Fail("RemoveFifo", name);
}

int ky_ipc::CreateIpcDirectory() {
    try {
        const Place place = FindPlace();
        if (!tal_fileutils::MakeDirPath(place.path, place.inTmp ? kOwnerMode : kGroupMode, false))
            return Fail("Create", place.path.c_str());
        return KyFifoDirectory().Open();
    } catch (const std::exception&) {
        return KyIpcFifoSession::IPC_NO_MEMORY;
    }
}

std::string ky_ipc::IpcDirectory() {
    return FindPlace().path;
}
