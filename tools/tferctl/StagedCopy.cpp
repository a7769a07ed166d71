#include "tferctl/StagedCopy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <limits>

#include "common/Text.h"
#include "messages/KyServiceContract.h"
#include "tferctl/ExitStatus.h"
#include "tferctl/FileCopy.h"
#include "tferctl/Signals.h"

namespace ky_tferctl {
namespace {

constexpr mode_t s_directoryMode = 0770;
constexpr mode_t s_fileMode = 0660;

std::uint64_t SizeOf(const KyFd& file, const std::string& path) {
    struct stat found = {};
    if (fstat(file.Get(), &found) != 0) FailOn("read", path);
    const auto size = static_cast<std::uint64_t>(found.st_size);
    if (size > std::numeric_limits<std::uint32_t>::max())
        throw Failure(ExitStatus::FAILED,
                      ky_tools::Printable(path) + " is larger than a transfer can be, which is 4 GiB.");
    return size;
}

}  // namespace

StagedCopy::StagedCopy(const std::string& source) : m_name(source.substr(source.rfind('/') + 1)) {
    const KyFd from = OpenRegularFile(source);
    m_size = SizeOf(from, source);
    MakeDirectory();
    CopyBytes(from, source, MakeFile(), m_path, m_size);
}

// The service may run as another user, who moves the copy as a member of the staging directory's group. Where
// this user is no member himself, the service has to be root, and needs no group.
void StagedCopy::MakeDirectory() {
    struct stat staging = {};
    if (stat(ky_service::kStagingDirectory, &staging) != 0) FailOn("use", ky_service::kStagingDirectory);
    m_group = staging.st_gid;
    m_directoryPath = std::string(ky_service::kStagingDirectory) + "/.tferctl-XXXXXX";
    const SignalsHeld held;
    if (mkdtemp(m_directoryPath.data()) == nullptr) FailOn("write to", ky_service::kStagingDirectory);
    m_directory.emplace(Leftover::DIRECTORY, m_directoryPath);
    const bool grouped = chown(m_directoryPath.c_str(), static_cast<uid_t>(-1), m_group) == 0;
    if (grouped && chmod(m_directoryPath.c_str(), s_directoryMode) != 0) FailOn("write to", m_directoryPath);
}

KyFd StagedCopy::MakeFile() {
    m_path = m_directoryPath + "/" + m_name;
    m_file.emplace(Leftover::FILE, m_path);
    KyFd file(open(m_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) FailOn("write", m_path);
    const bool grouped = fchown(file.Get(), static_cast<uid_t>(-1), m_group) == 0;
    if (grouped && fchmod(file.Get(), s_fileMode) != 0) FailOn("write", m_path);
    return file;
}

}  // namespace ky_tferctl
