#include "tferctl/Turn.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

#include "messages/KyServiceContract.h"

namespace ky_tferctl {

bool Turn::Take() {
    if (m_taken) return true;
    if (!m_directory)
        m_directory = KyFd(open(ky_service::kStagingDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    m_taken = !m_directory || flock(m_directory.Get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
    return m_taken;
}

}  // namespace ky_tferctl
