#include "demo/Samples.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <stdexcept>

namespace ky_demo {
namespace {

constexpr std::time_t s_day = 86400;
constexpr std::time_t s_eventsEnd = 1710491400;  // 2024-03-15 08:30:00 UTC
constexpr std::size_t s_eventBytes = 20480;
constexpr std::size_t s_recordingBytes = 307200;

/// Numbers that look like chance and are the same in every run.
class Sequence {
public:
    std::uint32_t Next() {
        m_state = m_state * 6364136223846793005U + 1442695040888963407U;
        return static_cast<std::uint32_t>(m_state >> 33);
    }

private:
    std::uint64_t m_state = 2024;
};

std::string Configuration() {
    std::string text = "# Alarm limits of the unit\n";
    for (unsigned int phase = 1; phase <= 3; ++phase) {
        const std::string section = "phase" + std::to_string(phase);
        text += "\n[" + section + "]\nvoltage_low = 207.0\nvoltage_high = 253.0\ncurrent_high = 32.0\n";
    }
    return text + "\n[battery]\ntemperature_high = 45.0\nruntime_low = 300\n";
}

// One line for each minute, the last one cut off where the ring of a real device would end.
std::string Events() {
    Sequence numbers;
    std::string text;
    for (std::time_t time = s_eventsEnd - s_day; text.size() < s_eventBytes; time += 60) {
        std::tm at = {};
        gmtime_r(&time, &at);
        std::array<char, 96> line{};
        std::snprintf(line.data(), line.size(),
                      "%04d-%02d-%02d %02d:%02d:%02dZ  unit %u  input %u V  load %u %%\n", at.tm_year + 1900,
                      at.tm_mon + 1, at.tm_mday, at.tm_hour, at.tm_min, at.tm_sec, numbers.Next() % 4 + 1,
                      225 + numbers.Next() % 10, numbers.Next() % 100);
        text += line.data();
    }
    text.resize(s_eventBytes);
    return text;
}

std::string Recording() {
    Sequence numbers;
    std::string bytes(s_recordingBytes, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(numbers.Next() & 0xFF);
    return bytes;
}

void Write(const std::string& path, const std::string& content, std::time_t modified) {
    std::ofstream file(path, std::ios::binary);
    file << content;
    file.close();
    const std::array<timespec, 2> times = {{{modified, 0}, {modified, 0}}};
    if (!file || utimensat(AT_FDCWD, path.c_str(), times.data(), 0) != 0)
        throw std::runtime_error("cannot write " + path);
}

}  // namespace

void WriteSamples(const std::string& directory) {
    Write(directory + "/config.cfg", Configuration(), s_eventsEnd - 40 * s_day);
    Write(directory + "/event.log", Events(), s_eventsEnd);
    Write(directory + "/recording.bin", Recording(), s_eventsEnd - 2 * s_day);
}

}  // namespace ky_demo
