#ifndef TFERCTL_FAILURE_H
#define TFERCTL_FAILURE_H

#include <stdexcept>
#include <string>

namespace ky_tferctl {

/// Exit status of the program. Scripts depend on the numbers.
enum class ExitStatus {
    DONE = 0,
    FAILED = 1,      ///< the transfer failed, or a local file or the output did
    USAGE = 2,       ///< wrong command line
    REFUSED = 3,     ///< the service refused the request, or another transfer is in progress
    TIMED_OUT = 4,   ///< no reply, or no progress for too long
    NO_SERVICE = 5,  ///< no service runs, or this user may not send requests to it
};

/// Thrown to end the program with a message. The text is one sentence for the user, without the program's name.
class Failure : public std::runtime_error {
public:
    /// @param sentence  with or without a full stop at its end, because the end may come from the service
    Failure(ExitStatus exitStatus, const std::string& sentence)
        : std::runtime_error(sentence.substr(0, sentence.find_last_not_of(". ") + 1) + "."),
          m_exitStatus(exitStatus) {}

    ExitStatus Exit() const { return m_exitStatus; }

private:
    ExitStatus m_exitStatus;
};

/// A signal interrupted a transfer of this process. The text is a sentence that tells whether the transfer
/// was cancelled.
class Interrupted : public std::runtime_error {
public:
    Interrupted(int signal, const std::string& sentence) : std::runtime_error(sentence), m_signal(signal) {}

    /// The signal that is to end the process.
    int Signal() const { return m_signal; }

private:
    int m_signal;
};

}  // namespace ky_tferctl

#endif
