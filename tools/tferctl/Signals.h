#ifndef TFERCTL_SIGNALS_H
#define TFERCTL_SIGNALS_H

#include <signal.h>

namespace ky_tferctl {

/// Makes the signals by which a user or the system ends a process remove the leftovers first; the process
/// then dies of the signal. One that is ignored stays so.
void HandleSignals();

/// Removes the leftovers and lets the process die of the signal. Returns only inside a signal handler, at
/// whose end the process dies.
void DieOf(int signal);

/// Holds those signals back while it lives: between the making of something and its Leftover.
class SignalsHeld {
public:
    SignalsHeld();
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;
    ~SignalsHeld();

private:
    sigset_t m_before;
};

/// While it lives, the first SIGINT, SIGTERM or SIGHUP does not end the process but waits to be taken, so that
/// a transfer can be cancelled before. A second one ends the process at once. One that comes within a quarter
/// of a second counts as the first: timeout(1) sends its signal twice.
///
/// There is one object at a time, in a process with one thread.
class DeferredInterruption {
public:
    DeferredInterruption();
    DeferredInterruption(const DeferredInterruption&) = delete;
    DeferredInterruption& operator=(const DeferredInterruption&) = delete;

    /// Lets the process die of a signal that has come and was not taken.
    ~DeferredInterruption();

    /// @return the signal that has come, whose effect is the caller's task from then on; 0 for none
    int Take();

private:
    bool m_taken = false;
};

}  // namespace ky_tferctl

#endif
