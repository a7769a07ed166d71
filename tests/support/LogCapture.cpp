#include "support/LogCapture.h"

#include <algorithm>

#include "host/KyHostLog.h"
#include "platform/KyDlog.h"

LogCapture::LogCapture(int maxLevel) {
    ky_host::SetLogSink(Take, this, maxLevel);
}

LogCapture::~LogCapture() {
    ky_host::SetLogSink(nullptr, nullptr);
}

void LogCapture::Take(void* context, int level, const char* /*source*/, const char* function,
                      const char* text) {
    auto* const self = static_cast<LogCapture*>(context);
    const std::lock_guard<std::mutex> lock(self->m_mutex);
    self->m_lines.push_back({level, function, text});
}

std::vector<LogCapture::Line> LogCapture::Lines() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}

int LogCapture::Count(int level, const std::string& part) const {
    const std::vector<Line> lines = Lines();
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const Line& line) {
        return line.level == level && line.text.find(part) != std::string::npos;
    }));
}

std::vector<std::string> LogCapture::Texts(const std::string& function) const {
    std::vector<std::string> texts;
    for (const Line& line : Lines())
        if (line.function == function && line.level != KY_DLOG_TRACE) texts.push_back(line.text);
    return texts;
}
