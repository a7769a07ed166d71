#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <regex>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "host/KyHostLog.h"
#include "platform/KyDlog.h"
#include "platform/tal_fileutils.h"
#include "support/TempDir.h"

namespace {

using Lines = std::vector<std::string>;

/// Runs `body` in a process of its own, where the log has not been used yet, and returns what each of its
/// writes to standard error wrote. The socket keeps them apart.
Lines WritesOf(const std::function<void()>& body) {
    int sockets[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sockets), 0);
    std::fflush(nullptr);  // or the child could print it again
    const pid_t child = fork();
    if (child == 0) {
        dup2(sockets[1], STDERR_FILENO);
        close(sockets[0]);
        body();
        _exit(0);
    }
    close(sockets[1]);
    Lines writes;
    std::string bytes(200'000, '\0');
    for (ssize_t count; (count = recv(sockets[0], bytes.data(), bytes.size(), 0)) > 0;)
        writes.push_back(bytes.substr(0, static_cast<size_t>(count)));
    close(sockets[0]);
    int status = -1;
    EXPECT_TRUE(waitpid(child, &status, 0) == child && status == 0) << status;
    return writes;
}

TEST(HostLog, OneWritePerLine) {
    const std::string text(5000, 'x'), longest(65533, 'x');
    const std::tuple<int, std::string, std::string> rows[] = {
        {3, "na\xC3\xAFve %s", "error Src Fun: na\xC3\xAFve %s"},
        {-9, "a", "emerg Src Fun: a"},
        {4, "a\nb\r\tc\x1B\x7F", "warning Src Fun: a?b??c??"},
        {5, text + "\n", "notice Src Fun: " + text + "?"},
        {3, longest + "xxx", "error Src Fun: " + longest + "xxx"},
        {3, longest + "xxxx", "error Src Fun: " + longest + "..."},
    };
    const Lines writes = WritesOf([&] {
        for (const auto& [level, line, expected] : rows)
            __dlog_printfex(level, "Src", "Fun", "%s", line.c_str());
    });
    ASSERT_EQ(writes.size(), std::size(rows));
    for (size_t i = 0; i < std::size(rows); ++i) {
        const std::regex time("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ");
        EXPECT_TRUE(std::regex_match(writes[i].substr(0, 24), time)) << writes[i];
        EXPECT_EQ(writes[i].substr(24), std::get<2>(rows[i]) + "\n");
    }
}

TEST(HostLog, PrefixForTheJournalAndErrno) {
    for (const bool journal : {true, false}) {
        const Lines writes = WritesOf([&] {
            struct stat found;
            fstat(STDERR_FILENO, &found);
            const std::string inode = std::to_string(found.st_ino + (journal ? 0 : 1));
            setenv("JOURNAL_STREAM", (std::to_string(found.st_dev) + ":" + inode).c_str(), 1);
            __dlog_printfex(4, "Src", "Fun", "text %d", 1);
            close(STDERR_FILENO);
            errno = ERANGE;
            __dlog_printfex(3, "Src", "Fun", "cannot be written");
            if (errno != ERANGE) _exit(1);
        });
        ASSERT_EQ(writes.size(), 1u);
        EXPECT_EQ(writes[0] == "<4>Src Fun: text 1\n", journal) << writes[0];
    }
}

TEST(HostLog, TheSinkTakesTheLines) {
    Lines lines;
    const auto sink = [](void* context, int level, const char* source, const char* function,
                         const char* text) {
        static_cast<Lines*>(context)->push_back(std::to_string(level) + source + "|" + function + "|" + text);
        __dlog_printfex(3, "Sink", "Collect", "a sink's own lines are dropped");
    };
    ky_host::SetLogSink(sink, &lines, 4);
    for (int level = 3; level < 8; ++level)
        __dlog_printfex(level, "Src", "Fun", "a\n%d", level);
    ky_host::SetLogSink(nullptr, nullptr);
    EXPECT_EQ(lines, (Lines{"3Src|Fun|a\n3", "4Src|Fun|a\n4"}));
}

std::atomic<bool> s_set[2];
std::atomic<int> s_calls{0}, s_late{0};

void Note(void* set, int, const char*, const char*, const char*) {
    ++(*static_cast<std::atomic<bool>*>(set) ? s_calls : s_late);
}

TEST(HostLog, NoCallOfASinkOutlivesItsSetting) {
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        while (!stop)
            __dlog_printfex(7, "Src", "Fun", "text");
    });
    for (int round = 0; round < 500 || s_calls < 10; ++round) {
        s_set[round % 2] = true;
        ky_host::SetLogSink(Note, &s_set[round % 2]);
        s_set[(round + 1) % 2] = false;
    }
    stop = true;
    writer.join();
    ky_host::SetLogSink(nullptr, nullptr);
    EXPECT_EQ(s_late, 0);
}

/// The mode of the directory, or 0 if it is none.
mode_t ModeOf(const std::string& path) {
    struct stat found;
    return stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode) ? found.st_mode & 07777 : 0;
}

TEST(FileUtils, ConcurrentCreatorsMakeTheModeWhateverTheUmask) {
    const TempDir dir;
    const std::pair<mode_t, mode_t> rows[] = {{022, 0777}, {077, 0750}, {0777, 01770}, {0, 0700}};
    for (size_t round = 0; round < 50; ++round) {
        const auto [mask, mode] = rows[round % 4];
        const std::string path = dir / std::to_string(round);
        const mode_t before = umask(mask);
        std::vector<std::future<bool>> calls(mask == 0777 ? 1 : 4);  // nobody enters what has no mode yet
        for (auto& call : calls)
            call = std::async(std::launch::async, tal_fileutils::MakeDirPath, path + "/a", mode, true);
        for (auto& call : calls)
            EXPECT_TRUE(call.get());
        EXPECT_EQ(umask(before), mask);
        EXPECT_EQ(ModeOf(path), mode);
        EXPECT_EQ(ModeOf(path + "/a"), mode);
    }
}

TEST(FileUtils, Paths) {
    const TempDir dir;
    ASSERT_EQ(mkdir((dir / "dir").c_str(), 0700), 0);
    WriteFile(dir / "file", "");
    const std::pair<std::string, int> rows[] = {
        {"//dir//", 0},
        {"dir/a//b/../c/", 0},
        {"file/x", ENOTDIR},
        {std::string(300, 'n'), ENAMETOOLONG},
        {std::string("dir/z\0z", 7), EINVAL},
    };
    for (const auto& [path, error] : rows) {
        const bool made = tal_fileutils::MakeDirPath(dir / path, 0777, true);
        EXPECT_EQ(made ? 0 : errno, error) << path;
    }
    EXPECT_FALSE(tal_fileutils::MakeDirPath(dir / "none/x", 0777, false));
    EXPECT_EQ(ModeOf(dir / "dir"), 0700u) << "one that was there has changed";
    EXPECT_NE(ModeOf(dir / "dir/a/c"), 0u);
}

}  // namespace
