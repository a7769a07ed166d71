#ifndef SUPPORT_LOGCAPTURE_H
#define SUPPORT_LOGCAPTURE_H

#include <climits>
#include <mutex>
#include <string>
#include <vector>

/// Collects the platform's log lines, which then do not go to standard error. Only one may exist. Any thread may log and
/// call the operations.
class LogCapture {
public:
    struct Line {
        int level;
        std::string function;
        std::string text;
    };

    explicit LogCapture(int maxLevel = INT_MAX);
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture();

    /// How many lines of the level contain `part`.
    int Count(int level, const std::string& part) const;
    /// The texts that the function logged, in order, without those of level 7.
    std::vector<std::string> Texts(const std::string& function) const;
    std::vector<Line> Lines() const;

private:
    static void Take(void* context, int level, const char* source, const char* function, const char* text);

    mutable std::mutex m_mutex;
    std::vector<Line> m_lines;
};

#endif
