#ifndef TFERCTL_EXITSTATUS_H
#define TFERCTL_EXITSTATUS_H

#include <stdexcept>
#include <string>

namespace ky_tferctl {

/// How the program ends. Scripts know these numbers; they stay what they are.
enum class ExitStatus {
    DONE = 0,
    FAILED = 1,      ///< the transfer failed, or something on this side: a file, the output
    USAGE = 2,       ///< wrong command line
    REFUSED = 3,     ///< the service did not take the request, or somebody else's transfer is in progress
    TIMED_OUT = 4,   ///< no answer, or nothing has moved for too long
    NO_SERVICE = 5,  ///< there is nobody to ask
};

/// Ends the program. The text is one sentence for a person, without the program's name.
class Failure : public std::runtime_error {
public:
    /// @param sentence  its full stop may be missing: much of it is somebody else's text, with one or without
    Failure(ExitStatus exitStatus, const std::string& sentence)
        : std::runtime_error(sentence.substr(0, sentence.find_last_not_of(". ") + 1) + "."),
          m_exitStatus(exitStatus) {}

    ExitStatus Exit() const { return m_exitStatus; }

private:
    ExitStatus m_exitStatus;
};

}  // namespace ky_tferctl

#endif
