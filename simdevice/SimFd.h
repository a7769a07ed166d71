#ifndef SIMDEVICE_SIMFD_H
#define SIMDEVICE_SIMFD_H

#include <unistd.h>

#include <utility>

/// Owns a file descriptor, or none (-1).
class SimFd {
public:
    explicit SimFd(int fd = -1) : m_fd(fd) {}
    SimFd(SimFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    SimFd& operator=(SimFd&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~SimFd() { Close(); }

    int Get() const { return m_fd; }
    bool Valid() const { return m_fd >= 0; }

    /// Closes the descriptor now. @return false if there was none or the system reports an error
    bool Close() { return m_fd >= 0 && close(std::exchange(m_fd, -1)) == 0; }

private:
    int m_fd;
};

#endif
