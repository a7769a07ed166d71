#ifndef PLATFORMCHECK_PLATFORMTEST_H
#define PLATFORMCHECK_PLATFORMTEST_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <string>

#include "platformcheck/Setup.h"

namespace ky_platform_check {

/// The setup of this run, which the first call makes.
const Setup& TheSetup();

/// A test with a directory of its own.
class PlatformTest : public testing::Test {
protected:
    void SetUp() override;
    /// Removes the directory and restores the umask.
    void TearDown() override;

    std::string m_directory;  ///< empty at first; the path has no "/" at its end

private:
    mode_t m_umask = 0;
};

/// Success if the bytes are equal. The failure message shows their sizes and the first difference only.
testing::AssertionResult Same(const std::string& expected, const std::string& seen);

/// Pseudo-random bytes: the same for the same seed.
std::string Noise(size_t count, unsigned int seed);

/// Milliseconds on the monotonic clock.
long long Now();
void Pause(int milliseconds);

/// Content of a file; empty if it cannot be read.
std::string FileBytes(const std::string& path);
bool WriteFileBytes(const std::string& path, const std::string& bytes);

}  // namespace ky_platform_check

#endif
