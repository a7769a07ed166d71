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

constexpr int DEFAULT_LEVEL = KY_DLOG_NOTICE;
constexpr int UNREAD = INT_MIN;  // no limit: the environment has not been asked yet
constexpr size_t MOST_PREFIX = 256;
constexpr size_t SHORT_LINE = 1024;
constexpr size_t MOST_TEXT = 65536;
constexpr char CUT_MARK[] = "...";

struct Sink {
    ky_host::KyLogSink call;
    void* context;
    int maxLevel;
};

// All of this is initialised before any code runs, and nothing of it is destroyed: other static objects may
// log. The lock prefers the setter, which would otherwise wait for as long as some thread or other is
// logging.
pthread_rwlock_t s_sinkLock = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
Sink s_sink = {nullptr, nullptr, 0};     // guarded by s_sinkLock
int s_stderrLevel = UNREAD;              // guarded by s_sinkLock
std::atomic<bool> s_sinkSet{false};      // lets standard error do without the lock
std::atomic<int> s_limit{UNREAD};        // lines of a higher level are dropped before anything else
thread_local bool t_insideSink = false;  // a second lock on the same thread could wait for itself

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

/// A prefix and the formatted text behind it, with room for a line end: on the stack while it is short.
class Line {
public:
    __attribute__((format(printf, 3, 0))) Line(const char* prefix, const char* format, va_list arguments)
        : m_start(m_short), m_textAt(std::min(std::strlen(prefix), MOST_PREFIX)) {
        std::memcpy(m_short, prefix, m_textAt);
        size_t wanted = Fill(SHORT_LINE - m_textAt, format, arguments);
        const size_t length = std::min(wanted, MOST_TEXT);
        if (wanted > m_textLength && Grow(length)) wanted = Fill(length + 1, format, arguments);
        if (wanted > m_textLength) std::memcpy(Text() + m_textLength - 3, CUT_MARK, 3);
    }

    char* Text() { return m_start + m_textAt; }

    /// Shows the line's control characters as `?` and ends it. @return the whole line
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

    /// Formats into `room` bytes behind the prefix, the NUL included. @return the length of the whole text
    __attribute__((format(printf, 3, 0))) size_t Fill(size_t room, const char* format, va_list arguments) {
        va_list again;
        va_copy(again, arguments);
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the analyzer does not see what va_copy does
        int length = std::vsnprintf(Text(), room, format, again);
        va_end(again);
        if (length < 0)
            length = std::snprintf(Text(), room, "%s", format);  // wide text that has no narrow form
        m_textLength = std::min(static_cast<size_t>(length), room - 1);
        return static_cast<size_t>(length);
    }

    /// Moves the prefix to memory with room for a text of `length` bytes. @return false if there is none
    bool Grow(size_t length) {
        m_long.reset(static_cast<char*>(std::malloc(m_textAt + length + 1)));
        if (m_long == nullptr) return false;
        std::memcpy(m_long.get(), m_short, m_textAt);
        m_start = m_long.get();
        return true;
    }

    char m_short[SHORT_LINE];
    std::unique_ptr<char, Free> m_long;
    char* m_start;
    const size_t m_textAt;
    size_t m_textLength = 0;
};

/// Reads a decimal number at `text` and moves `text` behind it.
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
    return good ? level : DEFAULT_LEVEL;
}

int Limit() {
    int limit = s_limit.load(std::memory_order_relaxed);
    if (limit != UNREAD) return limit;
    const int level = EnvironmentLevel();
    return s_limit.compare_exchange_strong(limit, level) ? level : limit;
}

/// The file that the service manager calls the journal, as device and inode.
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

/// Asked for each line: a daemon may point its standard error elsewhere at any time.
bool StderrIsJournal() {
    static const Journal s_journal;
    struct stat found;
    return s_journal.known && fstat(STDERR_FILENO, &found) == 0 && found.st_dev == s_journal.device &&
           found.st_ino == s_journal.inode;
}

/// Writes the local time and the severity's name to `prefix`. @return the number of characters
int FormatTime(char (&prefix)[MOST_PREFIX], int severity) {
    static const char* const NAMES[] = {"emerg",   "alert",  "crit", "error",
                                        "warning", "notice", "info", "trace"};
    using namespace std::chrono;
    const auto now = time_point_cast<milliseconds>(system_clock::now());
    const std::time_t seconds = system_clock::to_time_t(floor<std::chrono::seconds>(now));
    const int fraction = static_cast<int>((now - floor<std::chrono::seconds>(now)).count());
    std::tm local = {};
    localtime_r(&seconds, &local);
    const size_t length = std::strftime(prefix, sizeof prefix, "%Y-%m-%d %H:%M:%S", &local);
    return static_cast<int>(length) +
           std::snprintf(prefix + length, sizeof prefix - length, ".%03d %s ", fraction, NAMES[severity]);
}

void FormatPrefix(char (&prefix)[MOST_PREFIX], int level, const char* source, const char* function) {
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

/// @return true if a sink is set: it, not standard error, decides about the line then
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
    char prefix[MOST_PREFIX];
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
    // A sink that has just been removed may have let through what standard error's limit excludes.
    if (!taken && level <= Limit()) GiveToStderr(level, source, function, format, arguments);
    va_end(arguments);
}

void ky_host::SetLogSink(KyLogSink sink, void* context, int maxLevel) {
    const WriteLock lock;
    s_sink = {sink, context, maxLevel};
    // In this order, and the other way round on the way back: a line that the sink's limit has let through
    // finds the sink, or standard error's limit in force again.
    if (sink != nullptr) s_sinkSet = true;
    s_limit = sink != nullptr ? std::max(maxLevel, UNREAD + 1) : s_stderrLevel;
    if (sink == nullptr) s_sinkSet = false;
}

void ky_host::SetLogLevel(int level) {
    const WriteLock lock;
    s_stderrLevel = std::max(level, UNREAD + 1);
    if (s_sink.call == nullptr) s_limit = s_stderrLevel;
}
