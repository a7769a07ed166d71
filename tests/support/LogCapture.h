#ifndef SUPPORT_LOGCAPTURE_H
#define SUPPORT_LOGCAPTURE_H

#include <climits>
#include <mutex>
#include <string>
#include <vector>

/// Takes the platform's log lines, in the place of standard error, from its construction to its end. One at a
/// time. Lines may come from any thread, and the operations may be called from any.
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
    /// The texts that the operation logged, in order, but for those of level 7.
    std::vector<std::string> Texts(const std::string& function) const;
    std::vector<Line> Lines() const;

private:
    static void Take(void* context, int level, const char* source, const char* function, const char* text);

    mutable std::mutex m_mutex;
    std::vector<Line> m_lines;
};

#endif
