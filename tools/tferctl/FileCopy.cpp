#include "tferctl/FileCopy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "messages/KyServiceContract.h"
#include "tferctl/Failure.h"
#include "tferctl/Text.h"

namespace ky_tferctl {
namespace {

using ky_service::kStagingDirectory;

constexpr std::size_t kBlockBytes = 65536;
constexpr mode_t kDirectoryMode = 0770;
constexpr mode_t kFileMode = 0660;

/// Throws the Failure for a system call on `path` that has just failed. @param action  for example "read"
[[noreturn]] void FailOn(const char* action, const std::string& path) {
    const char* const reason = std::strerror(errno);
    throw Failure(ExitStatus::FAILED,
                  std::string("Cannot ") + action + " " + Printable(path) + ": " + reason);
}

std::size_t ReadBlock(const KyFd& from, const std::string& path, std::vector<char>& block) {
    for (;;) {
        const ssize_t count = read(from.Get(), block.data(), block.size());
        if (count >= 0) return static_cast<std::size_t>(count);
        if (errno != EINTR) FailOn("read", path);
    }
}

void WriteBlock(const KyFd& to, const std::string& path, const char* bytes, std::size_t count) {
    while (count > 0) {
        const ssize_t written = write(to.Get(), bytes, count);
        if (written < 0 && errno != EINTR) FailOn("write", path);
        if (written < 0) continue;
        bytes += written;
        count -= static_cast<std::size_t>(written);
    }
}

/// Opens a file for reading, without waiting for a FIFO or a device.
KyFd OpenRegularFile(const std::string& path) {
    KyFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat found = {};
    if (!file || fstat(file.Get(), &found) != 0) FailOn("read", path);
    if (!S_ISREG(found.st_mode))
        throw Failure(ExitStatus::FAILED, "Cannot read " + Printable(path) + ": not a regular file.");
    return file;
}

/// Copies all of `from` to `to` and waits until it is stored. Throws a Failure if `from` does not have `size`
/// bytes.
void CopyBytes(const KyFd& from, const std::string& fromPath, const KyFd& to, const std::string& toPath,
               std::uint64_t size) {
    std::vector<char> block(kBlockBytes);
    std::uint64_t copied = 0;
    while (const std::size_t count = ReadBlock(from, fromPath, block)) {
        copied += count;
        if (copied > size) break;
        WriteBlock(to, toPath, block.data(), count);
    }
    if (copied != size)
        throw Failure(ExitStatus::FAILED, Printable(fromPath) + " does not have the " + std::to_string(size) +
                                              " bytes that were expected.");
    if (fsync(to.Get()) != 0 && errno != EINVAL) FailOn("write", toPath);
}

mode_t ModeOfNewFiles() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

/// Mode of the file to write: the mode of an older file, if there is one.
mode_t ModeFor(const std::string& path) {
    struct stat found = {};
    const bool isThere = stat(path.c_str(), &found) == 0;
    const bool hasNoName = path.empty() || path.back() == '/';
    if (hasNoName || (isThere && !S_ISREG(found.st_mode)))
        throw Failure(ExitStatus::FAILED,
                      "Cannot write " + Printable(path) + ": not the name of a regular file");
    return isThere ? found.st_mode & 0777 : ModeOfNewFiles();
}

std::string DirectoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

std::uint64_t SizeOf(const KyFd& file, const std::string& path) {
    struct stat found = {};
    if (fstat(file.Get(), &found) != 0) FailOn("read", path);
    const auto size = static_cast<std::uint64_t>(found.st_size);
    if (size > std::numeric_limits<std::uint32_t>::max())
        throw Failure(ExitStatus::FAILED,
                      Printable(path) + " is larger than a transfer can be, which is 4 GiB.");
    return size;
}

}  // namespace

OutputFile::OutputFile(const std::string& path) : m_path(path), m_mode(ModeFor(path)) {
    MakeTemporary(DirectoryOf(path));
}

void OutputFile::MakeTemporary(const std::string& directory) {
    m_temporaryPath = directory + "/.tferctl-XXXXXX";
    const SignalBlock block;
    m_file = KyFd(mkostemp(m_temporaryPath.data(), O_CLOEXEC));
    if (!m_file) FailOn("write", m_path);
    m_temporary.emplace(TemporaryPath::FILE, m_temporaryPath);
}

void OutputFile::Fill(const std::string& source, std::uint64_t size) {
    CopyBytes(OpenRegularFile(source), source, m_file, m_path, size);
    if (fchmod(m_file.Get(), m_mode) != 0 || std::rename(m_temporaryPath.c_str(), m_path.c_str()) != 0)
        FailOn("write", m_path);
    m_temporary->Keep();
}

StagedCopy::StagedCopy(const std::string& source) : m_fileName(source.substr(source.rfind('/') + 1)) {
    const KyFd from = OpenRegularFile(source);
    m_size = SizeOf(from, source);
    MakeDirectory();
    CopyBytes(from, source, MakeFile(), m_path, m_size);
}

// A service of another user moves the copy with the permissions of the staging directory's group. If this
// user does not belong to the group, chown() fails, and only a service of root or of this user can move the
// copy.
void StagedCopy::MakeDirectory() {
    struct stat staging = {};
    if (stat(kStagingDirectory, &staging) != 0) FailOn("use", kStagingDirectory);
    m_group = staging.st_gid;
    m_directoryPath = std::string(kStagingDirectory) + "/.tferctl-XXXXXX";
    const SignalBlock block;
    if (mkdtemp(m_directoryPath.data()) == nullptr) FailOn("write to", kStagingDirectory);
    m_directory.emplace(TemporaryPath::DIRECTORY, m_directoryPath);
    const bool grouped = chown(m_directoryPath.c_str(), static_cast<uid_t>(-1), m_group) == 0;
    if (grouped && chmod(m_directoryPath.c_str(), kDirectoryMode) != 0) FailOn("write to", m_directoryPath);
}

KyFd StagedCopy::MakeFile() {
    m_path = m_directoryPath + "/" + m_fileName;
    m_file.emplace(TemporaryPath::FILE, m_path);
    KyFd file(open(m_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) FailOn("write", m_path);
    const bool grouped = fchown(file.Get(), static_cast<uid_t>(-1), m_group) == 0;
    if (grouped && fchmod(file.Get(), kFileMode) != 0) FailOn("write", m_path);
    return file;
}

}  // namespace ky_tferctl
