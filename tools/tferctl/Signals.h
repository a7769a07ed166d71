#ifndef TFERCTL_SIGNALS_H
#define TFERCTL_SIGNALS_H

#include <signal.h>

#include <cstddef>
#include <string>

namespace ky_tferctl {

/// A path that must not outlive the process. The destructor removes it, and so does the handler of a signal
/// that ends the process.
///
/// The objects are destroyed in the reverse order of their construction. The process has one thread: on a
/// second thread, the signal handler could run at the same time.
class TemporaryPath {
public:
    enum Kind : sig_atomic_t {
        NOTHING = 0,
        FILE = 1,
        DIRECTORY = 2,
        FIFO = 3,  ///< anything else at the path stays
    };

    /// @param path  absolute, or relative to a working directory that does not change; need not exist yet.
    ///              Throws a Failure if it is too long
    TemporaryPath(Kind kind, const std::string& path);
    TemporaryPath(const TemporaryPath&) = delete;
    TemporaryPath& operator=(const TemporaryPath&) = delete;
    ~TemporaryPath();

    /// Does not remove the path any more.
    void Keep() const;

private:
    const std::size_t m_slot;
};

/// Sets handlers for the signals by which a user or the system ends a process: they remove the temporary
/// paths first. An ignored signal stays ignored.
void HandleSignals();

/// Removes the temporary paths and ends the process by the signal's default action. Returns only in a signal
/// handler; the process ends when the handler returns.
void TerminateBy(int signal);

/// Blocks the signals of HandleSignals() while it lives. Use it from the creation of a file to the construction of
/// its TemporaryPath: a signal in between would leave the file behind.
class SignalBlock {
public:
    SignalBlock();
    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;
    ~SignalBlock();

private:
    sigset_t m_before;
};

/// While it lives, the first SIGINT, SIGTERM or SIGHUP is deferred, so that the transfer can be cancelled. A
/// second signal ends the process at once, unless it comes within 250 ms: timeout(1) sends its signal twice.
///
/// At most one object exists at a time, in a process with one thread.
class DeferredSignal {
public:
    DeferredSignal();
    DeferredSignal(const DeferredSignal&) = delete;
    DeferredSignal& operator=(const DeferredSignal&) = delete;

    /// Ends the process by the deferred signal, unless Take() has returned it.
    ~DeferredSignal();

    /// @return the deferred signal, which the caller must handle; 0 for none
    int Take();

private:
    bool m_taken = false;
};

}  // namespace ky_tferctl

#endif
