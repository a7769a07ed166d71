#ifndef PLATFORMCHECK_SETUP_H
#define PLATFORMCHECK_SETUP_H

#include <functional>
#include <memory>
#include <string>

#include "platform/KyPldProxy.h"

/// The self-test of a platform: tests whether the classes and functions of src/platform/ do what their headers
/// say. The tests need no other part of the card.
namespace ky_platform_check {

/// The device for the tests of the proxy. A test is skipped if it needs a member that has its default.
struct Device {
    /// The proxy to test; null for none.
    std::shared_ptr<KyPldProxy> proxy;

    unsigned short id = 0;     ///< identifier of the device
    unsigned short mmIdx = 0;  ///< module index of the card, counted from 1; 0 if unknown

    // Identifiers of points; -1 for none.
    int number = -1;     ///< a readable 32-bit integer point whose value does not change during the run
    int text = -1;       ///< a string point that the card can write and read; the test restores its value
    int absent = -1;     ///< a point that the device does not have
    int agentInfo = -1;  ///< the MonAgentInfo point: holds the card's MAC address at one module index

    std::string landingDirectory;  ///< where fetched files arrive; exists, and ends with "/"
    std::string fileName;          ///< a file of the device, which is fetched several times; empty for none
    std::string fileBytes;         ///< content of that file
    std::string pushName;          ///< transfer name for a pushed file; empty for none

    /// Returns whether the device holds these bytes under this name, and removes the file if possible. Without
    /// this function, the test relies on the result of the push.
    std::function<bool(const std::string& name, const std::string& bytes)> received;
};

/// The properties of a run.
struct Setup {
    /// An existing directory, in which the tests create and remove files and directories.
    std::string workDirectory = "/tmp";

    /// Longest duration of a test in seconds. A test that takes longer ends the program.
    unsigned int bound = 10;

    /// The same for the tests of the proxy, whose calls have their own time limits.
    unsigned int proxyBound = 120;

    /// Returns the device; empty for a run without one. Called once, before the first test of the proxy.
    std::function<Device()> connect;
};

}  // namespace ky_platform_check

/// Defined by the card, in the source file that it links to the self-test: prepares the process for FIFO
/// sessions, if the platform requires that, and describes the run. Called once, before the tests.
ky_platform_check::Setup SetUpPlatformCheck();

#endif
