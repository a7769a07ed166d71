#ifndef PLATFORMCHECK_PLATFORMCHECK_H
#define PLATFORMCHECK_PLATFORMCHECK_H

#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include "platform/KyPldProxy.h"

/// The self-test of a platform: checks whether the classes and functions that the headers in src/platform/
/// declare do what is said there, as far as that can be seen without the rest of the card.
namespace ky_platform_check {

/// The device that the proxy is checked with. What is left at its default is not checked.
struct Device {
    std::shared_ptr<KyPldProxy> proxy;  ///< not null; kept for ever if one of its calls does not return
    unsigned short id = 0;              ///< the device's identifier
    unsigned short mmIdx = 0;           ///< the card's multi-module index there, 0 if not known

    // Identifiers of points; -1 for none.
    int number = -1;     ///< a 32-bit integer point that can be read and keeps its value meanwhile
    int text = -1;       ///< a string point that can be written and read back; gets its old value again
    int absent = -1;     ///< no point of the device
    int agentInfo = -1;  ///< the MonAgentInfo point, which holds the card's MAC at one of its indexes

    std::string landingDirectory;  ///< where fetched files arrive, with a "/" at its end; it exists
    std::string fileName;          ///< a file of the device; empty for none. It is fetched several times
    std::string fileBytes;         ///< what that file holds
    std::string pushName;          ///< transfer name for a file to be pushed; empty for none

    /// Whether the device holds these bytes under this name, and removes the file if it can. May be empty;
    /// then the proxy is believed.
    std::function<bool(const std::string& name, const std::string& bytes)> received;
};

/// What a run checks, and within which bounds.
struct Options {
    /// Runs only the checks whose names contain this text.
    std::string filter;

    /// Prints the names of the checks that would run, and runs none.
    bool listOnly = false;

    /// An existing directory in which a directory for the run is made, and removed at the end.
    std::string workDirectory = "/tmp";

    /// Longest duration of a check in milliseconds. One that takes longer has failed.
    int bound = 10000;

    /// The same for the checks of the proxy, whose calls have time limits of their own.
    int proxyBound = 120000;

    /// Gives the device; empty, or null in its result's `proxy`, for a run without one. Called once, after
    /// the checks that need no device, so that a proxy may start threads.
    std::function<Device()> connect;
};

/// Runs the checks and writes the results to `out`, in the Test Anything Protocol, version 13: one line for
/// each check, and behind a failed one, as lines that begin with "#", what was expected, what was seen, and
/// what the platform has written to standard error meanwhile.
///
/// Each check without a device runs in a child process, so one that crashes or hangs has failed and the next
/// one runs; for the same reason, call it before the process has threads that hold locks. The checks of the
/// proxy run in this process, each on a thread; one that does not end within its bound stays behind, and the
/// rest of them are skipped.
///
/// Blocks for as long as the checks take, some seconds at most where nothing fails. Needs no special rights,
/// and leaves behind lines in the platform's log only. Throws std::bad_alloc, and what `connect` throws.
///
/// @param options  copied where needed; not used behind the call
/// @param out      where the results go; not null, stays the caller's
/// @return 0 if no check has failed; 1 if one has, or none could be run
int Run(const Options& options, std::FILE* out);

}  // namespace ky_platform_check

#endif
