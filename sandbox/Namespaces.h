#ifndef SANDBOX_NAMESPACES_H
#define SANDBOX_NAMESPACES_H

#include <fcntl.h>
#include <unistd.h>

#include <string>

namespace sandbox {

/// An open descriptor, closed with its object and by exec.
class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    Descriptor(const std::string& path, int flags) : m_fd(open(path.c_str(), flags | O_CLOEXEC)) {}
    Descriptor(Descriptor&& other) noexcept : m_fd(other.m_fd) { other.m_fd = -1; }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor& operator=(Descriptor&&) = delete;
    ~Descriptor() {
        if (m_fd >= 0) close(m_fd);
    }
    int Get() const { return m_fd; }

private:
    int m_fd;
};

/// Reports a failed system call on standard error; false, so that callers can return it.
bool Complain(const std::string& what);

/// The same where the kernel may have to be told to grant namespaces; says how.
bool ComplainOfKernel(const std::string& what);

/// Enters a user namespace, if the kernel grants one, and a mount namespace, whose mounts are private. The
/// calling process must have one thread. False after a message.
bool EnterNamespaces();

/// Gives up every capability, for good. False after a message.
bool DropCapabilities();

}  // namespace sandbox

#endif
