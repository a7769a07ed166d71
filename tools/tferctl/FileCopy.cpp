#include "tferctl/FileCopy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "common/Text.h"
#include "tferctl/ExitStatus.h"

namespace ky_tferctl {
namespace {

constexpr std::size_t s_blockBytes = 65536;

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

}  // namespace

KyFd OpenRegularFile(const std::string& path) {
    KyFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat found = {};
    if (!file || fstat(file.Get(), &found) != 0) FailOn("read", path);
    if (!S_ISREG(found.st_mode))
        throw Failure(ExitStatus::FAILED,
                      "Cannot read " + ky_tools::Printable(path) + ": not a regular file.");
    return file;
}

void CopyBytes(const KyFd& from, const std::string& fromPath, const KyFd& to, const std::string& toPath,
               std::uint64_t size) {
    std::vector<char> block(s_blockBytes);
    std::uint64_t copied = 0;
    while (const std::size_t count = ReadBlock(from, fromPath, block)) {
        copied += count;
        if (copied > size) break;
        WriteBlock(to, toPath, block.data(), count);
    }
    if (copied != size)
        throw Failure(ExitStatus::FAILED, ky_tools::Printable(fromPath) + " does not have the " +
                                              std::to_string(size) + " bytes that it should have.");
    if (fsync(to.Get()) != 0 && errno != EINVAL) FailOn("write", toPath);
}

void FailOn(const char* what, const std::string& path) {
    const char* const reason = std::strerror(errno);
    throw Failure(ExitStatus::FAILED,
                  std::string("Cannot ") + what + " " + ky_tools::Printable(path) + ": " + reason);
}

}  // namespace ky_tferctl
