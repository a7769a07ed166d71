#include "host/KyHostLog.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "platform/KyDlog.h"

namespace {

constexpr int kDefaultLevel = KY_DLOG_NOTICE;
constexpr int kNotRead = INT_MIN;  // no limit: KY_LOG_LEVEL has not been read yet
constexpr size_t kMaxPrefix = 256;
constexpr size_t kShortLine = 1024;
constexpr size_t kMaxText = 65536;
constexpr char kCutMark[] = "...";

struct Sink {
    ky_host::KyLogSink call;
    void* context;
    int maxLevel;
};

// Constant initialisation and no destructors: other static objects may log at any time. The lock prefers
// writers, because busy loggers would otherwise starve the setter.
pthread_rwlock_t s_sinkLock = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
Sink s_sink = {nullptr, nullptr, 0};     // guarded by s_sinkLock
int s_stderrLevel = kNotRead;            // guarded by s_sinkLock
std::atomic<bool> s_sinkSet{false};      // without a sink, logging takes no lock
std::atomic<int> s_limit{kNotRead};      // lines of a higher level are dropped first
thread_local bool t_insideSink = false;  // locking again on the same thread could deadlock

class ReadLock {
public:
    ReadLock() { pthread_rwlock_rdlock(&s_sinkLock); }
    ~ReadLock() { pthread_rwlock_unlock(&s_sinkLock); }
    ReadLock(const ReadLock&) = delete;
    ReadLock& operator=(const ReadLock&) = delete;
};

class WriteLock {
public:
    WriteLock() { pthread_rwlock_wrlock(&s_sinkLock); }
    ~WriteLock() { pthread_rwlock_unlock(&s_sinkLock); }
    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;
};

class KeepErrno {
public:
    KeepErrno() : m_kept(errno) {}
    ~KeepErrno() { errno = m_kept; }
    KeepErrno(const KeepErrno&) = delete;
    KeepErrno& operator=(const KeepErrno&) = delete;

private:
    const int m_kept;
};

/// A prefix, the formatted text, and room for a line end. Short lines are on the stack.
class Line {
public:
    __attribute__((format(printf, 3, 0))) Line(const char* prefix, const char* format, va_list arguments)
        : m_start(m_short), m_textAt(std::min(std::strlen(prefix), kMaxPrefix)) {
        std::memcpy(m_short, prefix, m_textAt);
        size_t wanted = Fill(kShortLine - m_textAt, format, arguments);
        const size_t length = std::min(wanted, kMaxText);
        if (wanted > m_textLength && Grow(length)) wanted = Fill(length + 1, format, arguments);
        if (wanted > m_textLength) std::memcpy(Text() + m_textLength - 3, kCutMark, 3);
    }

    char* Text() { return m_start + m_textAt; }

    /// Replaces control characters by `?` and adds the line end. @return the whole line
    const char* End() {
        char* const end = Text() + m_textLength;
        std::replace_if(
            m_start, end, [](unsigned char c) { return c < ' ' || c == 0x7F; }, '?');
        *end = '\n';
        return m_start;
    }

    size_t Length() const { return m_textAt + m_textLength + 1; }

private:
    struct Free {
        void operator()(char* bytes) const { std::free(bytes); }
    };

    /// Formats into `room` bytes after the prefix, including the NUL. @return length of the complete text
    __attribute__((format(printf, 3, 0))) size_t Fill(size_t room, const char* format, va_list arguments) {
        va_list again;
        va_copy(again, arguments);
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the analyzer misses the effect of va_copy
        int length = std::vsnprintf(Text(), room, format, again);
        va_end(again);
        if (length < 0)
            length = std::snprintf(Text(), room, "%s", format);  // a wide text cannot be converted
        m_textLength = std::min(static_cast<size_t>(length), room - 1);
        return static_cast<size_t>(length);
    }

    /// Moves the prefix to the heap, with room for a text of `length` bytes. @return false if memory has run
    /// out
    bool Grow(size_t length) {
        m_long.reset(static_cast<char*>(std::malloc(m_textAt + length + 1)));
        if (m_long == nullptr) return false;
        std::memcpy(m_long.get(), m_short, m_textAt);
        m_start = m_long.get();
        return true;
    }

    char m_short[kShortLine];
    std::unique_ptr<char, Free> m_long;
    char* m_start;
    const size_t m_textAt;
    size_t m_textLength = 0;
};

/// Reads a decimal number at `text`, and advances `text` past it.
template <typename Number>
bool ReadNumber(const char*& text, Number& number) {
    const auto result = std::from_chars(text, text + std::strlen(text), number);
    text = result.ptr;
    return result.ec == std::errc();
}

int EnvironmentLevel() {
    const char* text = std::getenv("KY_LOG_LEVEL");
    int level = 0;
    const bool good = text != nullptr && ReadNumber(text, level) && *text == '\0' && level >= 0;
    return good ? level : kDefaultLevel;
}

int Limit() {
    int limit = s_limit.load(std::memory_order_relaxed);
    if (limit != kNotRead) return limit;
    const int level = EnvironmentLevel();
    return s_limit.compare_exchange_strong(limit, level) ? level : limit;
}

/// Device and inode of the journal, from the service manager.
struct Journal {
    unsigned long long device = 0;
    unsigned long long inode = 0;
    bool known = false;

    Journal() {
        const char* text = std::getenv("JOURNAL_STREAM");
        known = text != nullptr && ReadNumber(text, device) && *text++ == ':' && ReadNumber(text, inode) &&
                *text == '\0';
    }
};

/// Checked for each line: a process may redirect its standard error at any time.
bool StderrIsJournal() {
    static const Journal s_journal;
    struct stat found;
    return s_journal.known && fstat(STDERR_FILENO, &found) == 0 && found.st_dev == s_journal.device &&
           found.st_ino == s_journal.inode;
}

/// Writes the local time and the severity's name to `prefix`. @return the number of characters
int FormatTime(char (&prefix)[kMaxPrefix], int severity) {
    static const char* const kNames[] = {"emerg",   "alert",  "crit", "error",
                                         "warning", "notice", "info", "trace"};
    using namespace std::chrono;
    const auto now = time_point_cast<milliseconds>(system_clock::now());
    const std::time_t seconds = system_clock::to_time_t(floor<std::chrono::seconds>(now));
    const int fraction = static_cast<int>((now - floor<std::chrono::seconds>(now)).count());
    std::tm local = {};
    localtime_r(&seconds, &local);
    const size_t length = std::strftime(prefix, sizeof prefix, "%Y-%m-%d %H:%M:%S", &local);
    return static_cast<int>(length) +
           std::snprintf(prefix + length, sizeof prefix - length, ".%03d %s ", fraction, kNames[severity]);
}

void FormatPrefix(char (&prefix)[kMaxPrefix], int level, const char* source, const char* function) {
    const int severity = std::clamp(level, 0, 7);
    const int length = StderrIsJournal() ? std::snprintf(prefix, sizeof prefix, "<%d>", severity)
                                         : FormatTime(prefix, severity);
    std::snprintf(prefix + length, sizeof prefix - static_cast<size_t>(length), "%.80s %.80s: ", source,
                  function);
}

/// Writes all bytes, in one write unless the kernel takes only some of them.
void WriteStderr(const char* bytes, size_t count) {
    while (count > 0) {
        const ssize_t written = write(STDERR_FILENO, bytes, count);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        bytes += written;
        count -= static_cast<size_t>(written);
    }
}

/// @return true if a sink is set, even if its level drops the line: then standard error does not get the line
__attribute__((format(printf, 4, 0))) bool GiveToSink(int level, const char* source, const char* function,
                                                      const char* format, va_list arguments) {
    if (t_insideSink) return true;
    const ReadLock lock;
    if (s_sink.call == nullptr) return false;
    if (level > s_sink.maxLevel) return true;
    Line line("", format, arguments);
    t_insideSink = true;
    s_sink.call(s_sink.context, level, source, function, line.Text());
    t_insideSink = false;
    return true;
}

__attribute__((format(printf, 4, 0))) void GiveToStderr(int level, const char* source, const char* function,
                                                        const char* format, va_list arguments) {
    char prefix[kMaxPrefix];
    FormatPrefix(prefix, level, source, function);
    Line line(prefix, format, arguments);
    const char* const bytes = line.End();
    WriteStderr(bytes, line.Length());
}

}  // namespace

extern "C" void __dlog_printfex(int level, const char* source, const char* function, const char* format,
                                ...) {
    if (level > Limit()) return;
    const KeepErrno keep;
    va_list arguments;
    va_start(arguments, format);
    const bool taken = s_sinkSet.load() && GiveToSink(level, source, function, format, arguments);
    // The limit may have been the one of a sink that has just been removed.
    if (!taken && level <= Limit()) GiveToStderr(level, source, function, format, arguments);
    va_end(arguments);
}

void ky_host::SetLogSink(KyLogSink sink, void* context, int maxLevel) {
    const WriteLock lock;
    s_sink = {sink, context, maxLevel};
    // Order matters: a line that passes the sink's limit finds either the sink or standard error's limit.
    if (sink != nullptr) s_sinkSet = true;
    s_limit = sink != nullptr ? std::max(maxLevel, kNotRead + 1) : s_stderrLevel;
    if (sink == nullptr) s_sinkSet = false;
}

void ky_host::SetLogLevel(int level) {
    const WriteLock lock;
    s_stderrLevel = std::max(level, kNotRead + 1);
    if (s_sink.call == nullptr) s_limit = s_stderrLevel;
}
