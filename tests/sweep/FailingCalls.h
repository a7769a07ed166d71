#ifndef SWEEP_FAILINGCALLS_H
#define SWEEP_FAILINGCALLS_H

/// Calls of the code under test that fail, each once: of every place that a call comes from, told by the stack
/// above it, the first few calls in a run. A run has one fault; the runs are at their end when one had none.
/// Unlike a count of all calls, this comes to an end with threads that poll, and does not depend on their order.
///
/// It stands in the place of the C++ library's allocation, of jansson's, and of the functions of the C library
/// that FailingCalls.cpp lists, for the program and the shared libraries; what the C library calls within
/// itself is not reached. May be called from any thread.
namespace failing {

enum Kind {
    MEMORY,          ///< one allocation
    MEMORY_FROM_ON,  ///< one allocation, and all those after it
    THREAD,
    OPEN,
    READ,
    WRITE,
    STAT,
    RENAME,
    UNLINK,
    MKFIFO,
    PROXY_STATUS,  ///< the proxy's call returns a status, or false
    PROXY_THROW,   ///< it throws
    KINDS
};

enum Who { ALL, THIS_THREAD };

/// Whether the calls of the thread can fail, for the length of a block. At first they can.
class Scope {
public:
    explicit Scope(bool subject);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

private:
    const bool m_before;
};

void ForgetPlaces();             ///< begins anew
void Begin(Kind kind, Who who);  ///< begins a run
void End();                      ///< nothing fails any more
void EndShortage();              ///< the same, if it is memory that has run out
bool HasFailed();                ///< whether there was a fault since Begin()
void PrintPlace();               ///< writes the stack above the fault to standard error

/// Whether the call of this kind, which is being made, is to fail.
bool Take(Kind kind);

/// Allocations that have not been freed, of all threads.
long LiveAllocations();

}  // namespace failing

#endif
