#include "tferctl/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "common/Text.h"
#include "tferctl/ExitStatus.h"
#include "tferctl/FileCopy.h"
#include "tferctl/Signals.h"

namespace ky_tferctl {
namespace {

mode_t ModeOfNewFiles() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

// What a file at the path is to have; an older one's is kept.
mode_t ModeFor(const std::string& path) {
    struct stat found = {};
    const bool isThere = stat(path.c_str(), &found) == 0;
    const bool endsOpen = path.empty() || path.back() == '/';
    if (endsOpen || (isThere && !S_ISREG(found.st_mode)))
        throw Failure(ExitStatus::FAILED,
                      "Cannot write " + ky_tools::Printable(path) + ": not the name of a regular file");
    return isThere ? found.st_mode & 0777 : ModeOfNewFiles();
}

std::string DirectoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

}  // namespace

OutputFile::OutputFile(const std::string& path) : m_path(path), m_mode(ModeFor(path)) {
    MakeTemporary(DirectoryOf(path));
}

void OutputFile::MakeTemporary(const std::string& directory) {
    m_temporary = directory + "/.tferctl-XXXXXX";
    const SignalsHeld held;
    m_file = KyFd(mkostemp(m_temporary.data(), O_CLOEXEC));
    if (!m_file) FailOn("write", m_path);
    m_leftover.emplace(Leftover::FILE, m_temporary);
}

void OutputFile::Fill(const std::string& source, std::uint64_t size) {
    CopyBytes(OpenRegularFile(source), source, m_file, m_path, size);
    if (fchmod(m_file.Get(), m_mode) != 0 || std::rename(m_temporary.c_str(), m_path.c_str()) != 0)
        FailOn("write", m_path);
    m_leftover->Keep();
}

}  // namespace ky_tferctl
