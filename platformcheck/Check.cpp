#include "platformcheck/Check.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <fstream>
#include <sstream>

namespace {

constexpr size_t MOST_SHOWN = 40;

/// The text in quotes, what is not printable as "\x" and two digits, and a long one cut.
std::string Shown(const std::string& text) {
    std::string shown = "\"";
    for (const char c : text.substr(0, MOST_SHOWN)) {
        char code[8];
        std::snprintf(code, sizeof code, c >= ' ' && c < 0x7F ? "%c" : "\\x%02x",
                      static_cast<unsigned char>(c));
        shown += code;
    }
    return shown + (text.size() > MOST_SHOWN ? "...\" of " + std::to_string(text.size()) + " bytes" : "\"");
}

}  // namespace

namespace ky_platform_check {

bool Judge::Equal(const std::string& what, long long expected, long long seen) {
    return Expect(expected == seen,
                  what + ": expected " + std::to_string(expected) + ", seen " + std::to_string(seen));
}

bool Judge::Equal(const std::string& what, const std::string& expected, const std::string& seen) {
    return expected == seen ||
           Expect(false, what + ": expected " + Shown(expected) + ", seen " + Shown(seen));
}

bool Judge::Expect(bool good, const std::string& what) {
    if (!good) {
        m_verdict = BAD;
        Report(what + "\n");
    }
    return good;
}

void Judge::Skip(const std::string& why) {
    if (m_verdict == BAD) return;
    m_verdict = SKIPPED;
    Report(why);
}

void Judge::Finish() {
    Report({END, m_verdict});
}

void Judge::Report(const std::string& line) const {
    for (size_t done = 0; done < line.size();) {
        const ssize_t count = write(m_pipe, line.data() + done, line.size() - done);
        if (count < 0 && errno != EINTR) return;
        if (count > 0) done += static_cast<size_t>(count);
    }
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
