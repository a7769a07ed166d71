#ifndef SERVICE_SERVICELOCK_H
#define SERVICE_SERVICELOCK_H

#include <string>

/// Makes sure that only one service runs: a lock on a file, which the kernel lets go of however the process
/// ends. The file itself stays and means nothing.
class ServiceLock {
public:
    ServiceLock() = default;
    ~ServiceLock();
    ServiceLock(const ServiceLock&) = delete;
    ServiceLock& operator=(const ServiceLock&) = delete;

    /// @param path  the file; created if it is not there
    /// @return 0 with the lock held; EWOULDBLOCK if another process holds it; another error number otherwise
    int Take(const std::string& path);

private:
    int m_fd = -1;
};

#endif
