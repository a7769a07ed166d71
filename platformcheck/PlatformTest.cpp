#include "platformcheck/PlatformTest.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace ky_platform_check {

const Setup& TheSetup() {
    static const Setup s_setup = SetUpPlatformCheck();
    return s_setup;
}

void PlatformTest::SetUp() {
    m_umask = umask(022);
    m_directory = TheSetup().workDirectory + "/ky-platform-check-XXXXXX";
    ASSERT_NE(mkdtemp(m_directory.data()), nullptr) << "no directory in " << TheSetup().workDirectory;
}

void PlatformTest::TearDown() {
    umask(m_umask);
    std::error_code ignored;
    std::filesystem::remove_all(m_directory, ignored);
}

testing::AssertionResult Same(const std::string& expected, const std::string& seen) {
    if (expected == seen) return testing::AssertionSuccess();
    const auto differs = std::mismatch(expected.begin(), expected.end(), seen.begin(), seen.end());
    const auto offset = static_cast<size_t>(differs.first - expected.begin());
    return testing::AssertionFailure()
           << "expected " << expected.size() << " bytes, seen " << seen.size() << "; from offset " << offset
           << ", expected " << testing::PrintToString(expected.substr(offset, 40)) << ", seen "
           << testing::PrintToString(seen.substr(offset, 40));
}

std::string Noise(size_t count, unsigned int seed) {
    std::string bytes(count, '\0');
    unsigned int state = seed * 2654435761U + 1;
    for (char& byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

long long Now() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

void Pause(int milliseconds) {
    const timespec pause = {milliseconds / 1000, milliseconds % 1000 * 1000000L};
    nanosleep(&pause, nullptr);
}

std::string FileBytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

bool WriteFileBytes(const std::string& path, const std::string& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    return static_cast<bool>(file.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush());
}

}  // namespace ky_platform_check
