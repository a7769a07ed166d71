#ifndef SANDBOX_SANDBOX_H
#define SANDBOX_SANDBOX_H

#include <string>
#include <vector>

namespace sandbox {

/// A directory of the machine that the program shall see replaced.
struct Replacement {
    std::string path;     ///< absolute path of an existing directory, for example "/var/local"
    std::string content;  ///< existing directory that is shown in its place; empty: a new, empty file system
    unsigned int mode;    ///< permission bits of a new file system's root; unused with content
};

/// What to run, and on which replaced directories.
struct Plan {
    std::vector<Replacement> replacements;
    std::vector<char*> command;  ///< program, its arguments and a final null; the strings are the caller's
};

/// Exit statuses for the sandbox's own failures, as env(1) and its kind use them. A program that could be
/// started decides on the exit status itself.
enum ExitStatus {
    EXIT_SANDBOX_FAILED = 125,   ///< wrong usage, or the kernel refused
    EXIT_CANNOT_EXECUTE = 126,   ///< the program is there but cannot be started
    EXIT_NO_SUCH_PROGRAM = 127,  ///< the program was not found
};

/// Carries the plan out: the calling process enters namespaces of its own, replaces the directories, gives up
/// all capabilities for good, sets KY_SANDBOX=1 and becomes the program. Nothing outlives the program but
/// what it wrote into directories that were given as content; those files belong to the calling user.
///
/// An ordinary caller keeps his user and group number. Root appears as an ordinary user (1000) where the
/// kernel grants user namespaces, and otherwise stays 0, but without capabilities either way.
///
/// Must be called while the process has one thread. Environment and open descriptors are passed on.
/// Returns only on failure: an ExitStatus, after one message on standard error.
int Run(const Plan& plan);

/// The command line `sandbox-run [options] -- PROGRAM ARGS...`; the return value is the exit status.
int Main(int argc, char** argv);

}  // namespace sandbox

#endif
