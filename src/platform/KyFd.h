#ifndef PLATFORM_KYFD_H
#define PLATFORM_KYFD_H

#include <unistd.h>

#include <utility>

/// Owns an open descriptor and closes it; -1 stands for none. The class is complete: a card implements nothing
/// for it.
class KyFd {
public:
    explicit KyFd(int fd = -1) : m_fd(fd) {}
    KyFd(KyFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    KyFd& operator=(KyFd&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~KyFd() { Close(); }

    int Get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }

    /// Closes the descriptor now. @return false if there was none, or if close() failed
    bool Close() { return m_fd >= 0 && close(std::exchange(m_fd, -1)) == 0; }

private:
    int m_fd;
};

#endif
