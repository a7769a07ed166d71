#include "demo/LogFile.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "host/KyHostLog.h"

namespace ky_demo {

LogFile::LogFile(const std::string& path) : m_file(std::fopen(path.c_str(), "we")) {
    if (m_file == nullptr) throw std::runtime_error("cannot create " + path + ": " + std::strerror(errno));
    std::setvbuf(m_file.get(), nullptr, _IOLBF, BUFSIZ);
    ky_host::SetLogSink(&LogFile::Write, this);
}

LogFile::~LogFile() {
    ky_host::SetLogSink(nullptr, nullptr);
}

void LogFile::Write(void* logFile, int level, const char* source, const char* function, const char* text) {
    const auto* log = static_cast<const LogFile*>(logFile);
    const std::chrono::duration<double> sinceStart = std::chrono::steady_clock::now() - log->m_start;
    std::fprintf(log->m_file.get(), "%9.4f  %d  %s.%s: %s\n", sinceStart.count(), level, source, function,
                 text);
}

}  // namespace ky_demo
