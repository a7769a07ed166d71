#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <thread>

#include "platform/KyDlog.h"
#include "platform/KyNetUtils.h"
#include "platform/KyStringUtils.h"
#include "platform/KyTimerMgr.h"
#include "platform/tal_fileutils.h"
#include "platformcheck/Check.h"

using namespace ky_platform_check;

namespace {

static_assert(KyTimerMgr::INVALID_TIMER_ID == 0xFFFF, "the identifier that no timer has");

constexpr int THREADS = 4;

/// Runs the work on several threads at once, with their numbers.
template <typename Work>
void OnThreads(Work work) {
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i)
        threads.emplace_back(work, i);
    for (std::thread& thread : threads)
        thread.join();
}

int ModeOf(const std::string& path) {
    struct stat found;
    return stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode) ? static_cast<int>(found.st_mode & 07777)
                                                                     : -1;
}

void Trims(Judge& judge, const Bench&) {
    const std::string blanks = " \t\n\r\v\f";
    const std::string rows[][2] = {{"", ""},
                                   {"a", "a"},
                                   {blanks, ""},
                                   {blanks + "a" + blanks, "a"},
                                   {"a b\tc ", "a b\tc"},
                                   {" \xA0\xC2 ", "\xA0\xC2"},
                                   {std::string(" \0 ", 3), std::string(1, '\0')}};
    for (const auto& row : rows) {
        std::string text = row[0];
        KyStringUtils::Trim(text);
        judge.Equal("the trimmed text", row[1], text);
    }
}

void MakesDirectories(Judge& judge, const Bench& bench) {
    int number = 0;
    for (const mode_t mask : {0U, 022U, 0777U}) {
        for (const int mode : {0700, 0755, 0777}) {
            const std::string top = bench.directory + "/made" + std::to_string(number++);
            const std::string path = top + "/a/b";
            const auto bits = static_cast<unsigned int>(mode);
            const std::string with = " with the umask (decimal) " + std::to_string(mask);
            umask(mask);
            judge.Expect(tal_fileutils::MakeDirPath(path + (number % 2 == 0 ? "/" : ""), bits, true),
                         "MakeDirPath() fails" + with);
            for (const std::string& made : {top, top + "/a", path})
                judge.Equal("mode (decimal)" + with, mode, ModeOf(made));
            judge.Expect(tal_fileutils::MakeDirPath(path, 0711, true),
                         "MakeDirPath() of one that is there fails");
            judge.Equal("mode (decimal) of one that was there", mode, ModeOf(path));
        }
    }
}

void FailsWithErrno(Judge& judge, const Bench& bench) {
    umask(022);
    const std::string file = bench.directory + "/in-the-way";
    WriteFileBytes(file, "x");
    const struct {
        std::string path;
        bool parents;
        bool made;
    } rows[] = {{bench.directory + "/missing/child", false, false},
                {file, false, false},
                {file + "/child", true, false},
                {"", true, false},
                {bench.directory + "/single", false, true}};
    for (const auto& row : rows) {
        errno = 0;
        const bool made = tal_fileutils::MakeDirPath(row.path, 0755, row.parents);
        const int error = errno;
        judge.Equal("MakeDirPath(" + row.path + ")", row.made ? 1 : 0, made ? 1 : 0);
        judge.Expect(made || error != 0, "no errno for " + row.path);
    }
}

void MakesTogether(Judge& judge, const Bench& bench) {
    umask(0);
    std::array<int, THREADS> failures = {};
    OnThreads([&](int thread) {
        for (int i = 0; i < 20; ++i) {
            const std::string path = bench.directory + "/together" + std::to_string(i) + "/a/b";
            if (!tal_fileutils::MakeDirPath(path, 0755, true)) ++failures[static_cast<size_t>(thread)];
        }
    });
    for (const int count : failures)
        judge.Equal("failures of a creator", 0, count);
    judge.Equal("mode (decimal)", 0755, ModeOf(bench.directory + "/together19/a/b"));
}

void NamesCard(Judge& judge, const Bench&) {
    const std::string mac = tal_netutils::KyNetUtils::GetMAC();
    judge.Expect(!mac.empty(), "the text is empty");
    std::array<std::string, THREADS> other;
    OnThreads([&](int thread) {
        for (int i = 0; i < 50; ++i) {
            const std::string again = tal_netutils::KyNetUtils::GetMAC();
            if (again != mac) other[static_cast<size_t>(thread)] = again.empty() ? "(empty)" : again;
        }
    });
    for (const std::string& text : other)
        judge.Equal("another text than " + mac, "", text);
}

void Logs(Judge& judge, const Bench&) {
    const std::string texts[] = {"", "line\nline\r\t\x01", "\xFF\xFE", "100% %s", std::string(200000, 'x')};
    for (const int level : {KY_DLOG_ERROR, KY_DLOG_WARNING, KY_DLOG_NOTICE, KY_DLOG_TRACE}) {
        for (const std::string& text : texts) {
            errno = ENOTTY;
            __dlog_printfex(level, "platform-check", "Logs", "%s", text.c_str());
            judge.Equal("errno after a line", ENOTTY, errno);
            errno = 0;
            __dlog_printfex(level, "platform-check", "Logs", "%d %ld %zu", 1, 2L, text.size());
            judge.Equal("errno after a line", 0, errno);
        }
    }
}

void LogsFromThreads(Judge& judge, const Bench&) {
    std::array<int, THREADS> changed = {};
    OnThreads([&](int thread) {
        for (int i = 0; i < 25; ++i) {
            errno = thread + 1;
            __dlog_printfex(KY_DLOG_NOTICE, "platform-check", "LogsFromThreads", "thread %d, line %d", thread,
                            i);
            if (errno != thread + 1) ++changed[static_cast<size_t>(thread)];
        }
    });
    for (const int count : changed)
        judge.Equal("lines that have changed errno", 0, count);
}

}  // namespace

Checks ky_platform_check::HelperChecks() {
    return {{"string: Trim() takes white space from both ends and nothing else", Trims},
            {"directory: it and its parents get their mode, whatever the umask", MakesDirectories},
            {"directory: what cannot be made is false, with errno", FailsWithErrno},
            {"directory: several may make the same one", MakesTogether},
            {"network: the MAC is a text, and the same for every thread", NamesCard},
            {"log: any text and level, and errno stays", Logs},
            {"log: several threads at once", LogsFromThreads}};
}
