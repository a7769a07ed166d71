#ifndef DEMO_LOGFILE_H
#define DEMO_LOGFILE_H

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

namespace ky_demo {

/// Takes the process's log into a file, traces included, as long as it lives. There is one at a time.
class LogFile {
public:
    /// Throws std::runtime_error if the file cannot be created.
    explicit LogFile(const std::string& path);
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

private:
    static void Write(void* logFile, int level, const char* source, const char* function, const char* text);

    struct Closer {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    const std::unique_ptr<std::FILE, Closer> m_file;
    const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

}  // namespace ky_demo

#endif
