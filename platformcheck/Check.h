#ifndef PLATFORMCHECK_CHECK_H
#define PLATFORMCHECK_CHECK_H

#include <string>
#include <vector>

#include "platformcheck/PlatformCheck.h"

/// What the checks share. Internal to the library.
namespace ky_platform_check {

/// Takes what a check finds, and reports it to a pipe at once: a check that crashes has told the rest. One
/// thread uses it.
class Judge {
public:
    enum Verdict : char { GOOD = 'g', BAD = 'b', SKIPPED = 's' };
    static constexpr char END = '\x1E';  // stands before the verdict, the last byte of the report

    /// @param pipe  stays the caller's
    explicit Judge(int pipe) : m_pipe(pipe) {}

    /// Each reports a finding that is not as expected, and returns whether it is.
    bool Equal(const std::string& what, long long expected, long long seen);
    bool Equal(const std::string& what, const std::string& expected, const std::string& seen);
    bool Expect(bool good, const std::string& what);

    /// Ends the check without a result, unless something has been found wrong.
    void Skip(const std::string& why);

    /// Ends the report. To be called last.
    void Finish();

private:
    void Report(const std::string& line) const;

    const int m_pipe;
    Verdict m_verdict = GOOD;
};

/// What a check may use.
struct Bench {
    std::string directory;  ///< a fresh directory of the run, without a "/" at its end
    std::string fifo;       ///< name for a FIFO; others begin with it
    Device device;          ///< for the checks of the proxy
};

struct Check {
    const char* name;
    void (*run)(Judge& judge, const Bench& bench);
};

using Checks = std::vector<Check>;

Checks MessageChecks();
Checks FifoChecks();
Checks FifoDamageChecks();
Checks HelperChecks();
Checks ProxyChecks();

/// Removes the FIFOs that a check has left which did not come to its end.
void RemoveFifos(const std::string& prefix);

/// Bytes without a pattern that a mistake could repeat; the same for the same seed.
std::string Noise(size_t count, unsigned int seed);

/// Milliseconds on the monotonic clock.
long long Now();
void Pause(int milliseconds);

/// The bytes of a file; empty if it cannot be read.
std::string FileBytes(const std::string& path);
bool WriteFileBytes(const std::string& path, const std::string& bytes);

}  // namespace ky_platform_check

#endif
