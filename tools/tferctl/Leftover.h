#ifndef TFERCTL_LEFTOVER_H
#define TFERCTL_LEFTOVER_H

#include <signal.h>

#include <cstddef>
#include <string>

namespace ky_tferctl {

/// Something in the file system that must not outlive the process, even if a signal ends it: the object
/// removes it when it goes, and the signal handler removes what all objects stand for.
///
/// The objects go in the opposite order of their making. One thread uses them: with a second one the handler
/// could run beside it.
class Leftover {
public:
    enum Kind : sig_atomic_t {
        NOTHING = 0,
        FILE = 1,
        DIRECTORY = 2,
        FIFO = 3,  ///< removed only if it is one
    };

    /// @param path  absolute, or relative to a working directory that stays; need not be there yet. Throws a
    /// Failure if it is too long.
    Leftover(Kind kind, const std::string& path);
    Leftover(const Leftover&) = delete;
    Leftover& operator=(const Leftover&) = delete;
    ~Leftover();

    /// It is no longer ours to remove.
    void Keep() const;

private:
    const std::size_t m_slot;
};

/// Removes what all objects stand for. A signal handler may call it.
void RemoveLeftovers();

}  // namespace ky_tferctl

#endif
