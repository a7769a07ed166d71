#include "service/ServiceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

ServiceLock::~ServiceLock() {
    if (m_fd >= 0) close(m_fd);
}

int ServiceLock::Take(const std::string& path) {
    m_fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (m_fd < 0) return errno;
    return flock(m_fd, LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
}
