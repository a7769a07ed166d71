// Only what platform-check does not check.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <regex>
#include <tuple>
#include <vector>

#include "platform/KyDlog.h"
#include "platform/tal_fileutils.h"
#include "support/TempDir.h"

namespace {

using Lines = std::vector<std::string>;

/// Runs `body` in a new process, where the log has not been used yet. The socket keeps the writes apart.
/// @return what each write to standard error wrote
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

TEST(FileUtils, OddPaths) {
    const TempDir dir;
    EXPECT_TRUE(tal_fileutils::MakeDirPath(dir / "//a//b/../c//", 0777, true));
    EXPECT_EQ(access((dir / "a/c").c_str(), F_OK), 0);
    EXPECT_FALSE(tal_fileutils::MakeDirPath(dir / std::string("z\0z", 3), 0777, true));
    EXPECT_EQ(errno, EINVAL);
}

}  // namespace
