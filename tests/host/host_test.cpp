#include <gtest/gtest.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "host/KyHostLog.h"
#include "host/KyHostNet.h"
#include "platform/KyDlog.h"
#include "platform/KyNetUtils.h"
#include "platform/KyStringUtils.h"
#include "platform/tal_fileutils.h"

namespace {

using Lines = std::vector<std::string>;

const std::string TIME = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";

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
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return writes;
}

TEST(HostLog, OneWritePerLine) {
    const std::string longText(5000, 'x');
    const struct {
        const char* name;
        int level;
        std::string text;
        std::string pattern;
    } rows[] = {
        {"error", 3, "failed", "error Src Fun: failed"},
        {"warning", 4, "", "warning Src Fun: "},
        {"notice", 5, "na\xC3\xAFve %s", "notice Src Fun: na\xC3\xAFve %s"},
        {"trace", 7, "Enter", "trace Src Fun: Enter"},
        {"level out of range", 99, "a", "trace Src Fun: a"},
        {"negative level", -9, "a", "emerg Src Fun: a"},
        {"control characters", 3, "a\nb\r\tc\x1B\x7F", "error Src Fun: a\\?b\\?\\?c\\?\\?"},
        {"longer than the stack's buffer", 3, longText + "\n", "error Src Fun: " + longText + "\\?"},
    };
    const Lines writes = WritesOf([&] {
        ky_host::SetLogLevel(100);
        for (const auto& row : rows)
            __dlog_printfex(row.level, "Src", "Fun", "%s", row.text.c_str());
    });
    ASSERT_EQ(writes.size(), std::size(rows));
    for (size_t i = 0; i < std::size(rows); ++i) {
        const std::regex pattern(TIME + rows[i].pattern + "\n");
        EXPECT_TRUE(std::regex_match(writes[i], pattern)) << rows[i].name << ": " << writes[i];
    }
}

TEST(HostLog, CutsAt64KiB) {
    const struct {
        size_t length;
        bool cut;
    } rows[] = {{65535, false}, {65536, false}, {65537, true}, {1'000'000, true}};
    for (const auto& row : rows) {
        const Lines writes =
            WritesOf([&] { __dlog_printfex(3, "Src", "Fun", "%s", std::string(row.length, 'x').c_str()); });
        ASSERT_EQ(writes.size(), 1u) << row.length;
        const std::string text = writes[0].substr(writes[0].find("Fun: ") + 5);
        EXPECT_EQ(text, row.cut ? std::string(65533, 'x') + "...\n" : std::string(row.length, 'x') + "\n");
    }
}

TEST(HostLog, LevelFromTheEnvironment) {
    const struct {
        const char* value;
        size_t lines;  // of those from level 0 to 7
    } rows[] = {{nullptr, 6}, {"7", 8},  {"3", 4},  {"0", 1},           {"99", 8}, {"", 6},
                {"x", 6},     {"7x", 6}, {" 7", 6}, {"99999999999", 6}, {"-1", 6}};
    for (const auto& row : rows) {
        const Lines writes = WritesOf([&] {
            unsetenv("KY_LOG_LEVEL");
            if (row.value != nullptr) setenv("KY_LOG_LEVEL", row.value, 1);
            for (int level = 0; level < 8; ++level)
                __dlog_printfex(level, "Src", "Fun", "text");
        });
        EXPECT_EQ(writes.size(), row.lines) << (row.value == nullptr ? "absent" : row.value);
    }
}

TEST(HostLog, ADroppedLineIsNotFormatted) {
    const auto* const nowhere = reinterpret_cast<const char*>(1);
    const Lines writes = WritesOf([&] {
        ky_host::SetLogLevel(4);
        __dlog_printfex(5, "Src", "Fun", "%s", nowhere);
    });
    EXPECT_EQ(writes.size(), 0u);
}

TEST(HostLog, PrefixForTheJournal) {
    for (const bool journal : {true, false}) {
        const Lines writes = WritesOf([&] {
            struct stat found;
            fstat(STDERR_FILENO, &found);
            const std::string inode = std::to_string(found.st_ino + (journal ? 0 : 1));
            setenv("JOURNAL_STREAM", (std::to_string(found.st_dev) + ":" + inode).c_str(), 1);
            __dlog_printfex(4, "Src", "Fun", "text %d", 1);
        });
        ASSERT_EQ(writes.size(), 1u);
        EXPECT_EQ(writes[0] == "<4>Src Fun: text 1\n", journal) << writes[0];
    }
}

TEST(HostLog, KeepsErrnoAlsoWhenItCannotWrite) {
    WritesOf([] {
        for (const bool closed : {false, true}) {
            if (closed) close(STDERR_FILENO);
            errno = ERANGE;
            __dlog_printfex(3, "Src", "Fun", "%s", std::string(5000, 'x').c_str());
            if (errno != ERANGE) _exit(1);
        }
    });
}

void Collect(void* context, int level, const char* source, const char* function, const char* text) {
    static_cast<Lines*>(context)->push_back(std::to_string(level) + source + "|" + function + "|" + text);
    __dlog_printfex(3, "Sink", "Collect", "a sink's own lines are dropped");
}

TEST(HostLog, TheSinkTakesTheLines) {
    const Lines writes = WritesOf([] {
        Lines lines;
        const auto logAll = [] {
            for (int level = 3; level < 8; ++level)
                __dlog_printfex(level, "Src", "Fun", "a\n%d", level);
        };
        ky_host::SetLogLevel(3);
        ky_host::SetLogSink(Collect, &lines);
        logAll();
        if (lines !=
            Lines{"3Src|Fun|a\n3", "4Src|Fun|a\n4", "5Src|Fun|a\n5", "6Src|Fun|a\n6", "7Src|Fun|a\n7"})
            _exit(1);
        ky_host::SetLogSink(Collect, &lines, 4);
        ky_host::SetLogLevel(5);
        logAll();
        if (lines.size() != 7) _exit(2);
        ky_host::SetLogSink(nullptr, nullptr);
        logAll();
        if (lines.size() != 7) _exit(3);
    });
    EXPECT_EQ(writes.size(), 3u);
}

TEST(HostLog, NoCallOfASinkOutlivesItsSetting) {
    struct Context {
        std::atomic<bool> set{false};
        std::atomic<int> calls{0};
        std::atomic<int> late{0};
    } contexts[2];
    const auto sink = [](void* context, int, const char*, const char*, const char*) {
        auto* const own = static_cast<Context*>(context);
        std::this_thread::yield();
        if (!own->set) ++own->late;
        ++own->calls;
    };
    contexts[0].set = true;
    ky_host::SetLogSink(sink, &contexts[0]);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] {
            while (!stop)
                __dlog_printfex(7, "Src", "Fun", "text");
        });
    for (size_t round = 1; round <= 500 || contexts[0].calls == 0 || contexts[1].calls == 0; ++round) {
        contexts[round % 2].set = true;
        ky_host::SetLogSink(sink, &contexts[round % 2]);
        contexts[(round + 1) % 2].set = false;
    }
    stop = true;
    for (auto& thread : threads)
        thread.join();
    ky_host::SetLogSink(nullptr, nullptr);
    EXPECT_EQ(contexts[0].late + contexts[1].late, 0);
}

class FileUtils : public testing::Test {
protected:
    void SetUp() override {
        const char* const parent = std::getenv("TMPDIR");
        m_root = std::string(parent == nullptr ? "/tmp" : parent) + "/host_test.XXXXXX";
        ASSERT_NE(mkdtemp(m_root.data()), nullptr);
    }
    void TearDown() override { std::filesystem::remove_all(m_root); }

    /// The mode of `name`, or 0 if it is no directory.
    mode_t ModeOf(const std::string& name) const {
        struct stat found;
        const bool good = stat((m_root + "/" + name).c_str(), &found) == 0 && S_ISDIR(found.st_mode);
        return good ? found.st_mode & 07777 : 0;
    }

    std::string m_root;
};

TEST_F(FileUtils, MakesTheModeWhateverTheUmask) {
    const struct {
        mode_t umask;
        mode_t mode;
    } rows[] = {{0, 0777}, {022, 0777}, {077, 0750}, {0777, 0777}, {0777, 01770}, {0, 0700}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << std::oct << row.umask << " " << row.mode);
        const std::string name = std::to_string(row.umask) + "-" + std::to_string(row.mode);
        const mode_t before = umask(row.umask);
        const bool made = tal_fileutils::MakeDirPath(m_root + "/" + name + "/b", row.mode, true);
        EXPECT_EQ(umask(before), row.umask);
        EXPECT_TRUE(made);
        EXPECT_EQ(ModeOf(name), row.mode);
        EXPECT_EQ(ModeOf(name + "/b"), row.mode);
    }
}

TEST_F(FileUtils, Paths) {
    std::filesystem::create_directory(m_root + "/dir");
    std::filesystem::permissions(m_root + "/dir", std::filesystem::perms::owner_all);
    std::filesystem::create_directory_symlink("dir", m_root + "/link");
    std::filesystem::create_symlink("nowhere", m_root + "/dangling");
    std::ofstream(m_root + "/file").close();
    const struct {
        const char* name;
        std::string path;
        bool parents;
        int error;  // 0: succeeds
    } rows[] = {
        {"existing", "dir", false, 0},
        {"existing, with slashes", "//dir//", true, 0},
        {"new", "dir/new", false, 0},
        {"new, with a slash", "dir/new2/", false, 0},
        {"new, with parents", "dir/a//b/../c/", true, 0},
        {"new behind a link", "link/x/y", true, 0},
        {"link to a directory", "link", true, 0},
        {"no parent", "dir/none/x", false, ENOENT},
        {"a file", "file", false, ENOTDIR},
        {"a file, with a slash", "file/", true, ENOTDIR},
        {"below a file", "file/x", true, ENOTDIR},
        {"below a file, alone", "file/x", false, ENOTDIR},
        {"dangling link", "dangling", false, ENOTDIR},
        {"name too long", std::string(300, 'n'), true, ENAMETOOLONG},
        {"path too long", std::string(5000, '/') + "n", true, ENAMETOOLONG},
        {"NUL inside", std::string("dir/z\0z", 7), true, EINVAL},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        errno = 0;
        EXPECT_EQ(tal_fileutils::MakeDirPath(m_root + "/" + row.path, 0777, row.parents), row.error == 0);
        EXPECT_EQ(row.error == 0 ? 0 : errno, row.error);
        EXPECT_TRUE(row.error != 0 || ModeOf(row.path) != 0);
    }
    EXPECT_EQ(ModeOf("dir"), 0700u) << "one that was there has changed";
    EXPECT_EQ(ModeOf("dir/z"), 0u);
    EXPECT_FALSE(tal_fileutils::MakeDirPath("", 0777, true));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(tal_fileutils::MakeDirPath("/", 0777, true));
}

TEST_F(FileUtils, ConcurrentCreators) {
    for (int round = 0; round < 50; ++round) {
        const std::string path = m_root + "/" + std::to_string(round) + "/a/b";
        std::atomic<int> failures{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&] { failures += tal_fileutils::MakeDirPath(path, 0777, true) ? 0 : 1; });
        for (auto& thread : threads)
            thread.join();
        EXPECT_EQ(failures, 0);
        EXPECT_EQ(ModeOf(std::to_string(round) + "/a/b"), 0777u);
    }
}

/// What the kernel tells of the interfaces by another way than the one that the platform asks.
std::string ExpectedMAC() {
    const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    std::string expected = "02:00:00:00:00:01";
    for (unsigned int index = 1; index < 10'000; ++index) {
        ifreq request = {};
        if (if_indextoname(index, request.ifr_name) == nullptr) continue;
        if (ioctl(control, SIOCGIFHWADDR, &request) != 0 || request.ifr_hwaddr.sa_family != ARPHRD_ETHER)
            continue;
        std::string text;
        for (size_t i = 0; i < 6; ++i) {
            char digits[8];
            std::snprintf(digits, sizeof digits, ":%02x",
                          static_cast<unsigned char>(request.ifr_hwaddr.sa_data[i]));
            text += digits;
        }
        if (text == ":00:00:00:00:00:00") continue;
        expected = text.substr(1);
        break;
    }
    close(control);
    return expected;
}

TEST(HostNet, MAC) {
    const std::string own = tal_netutils::KyNetUtils::GetMAC();
    EXPECT_EQ(own, ExpectedMAC());
    ky_host::SetMAC("AA-any text");
    EXPECT_EQ(tal_netutils::KyNetUtils::GetMAC(), "AA-any text");
    ky_host::SetMAC("");
    EXPECT_EQ(tal_netutils::KyNetUtils::GetMAC(), own);
}

TEST(HostString, Trim) {
    const struct {
        std::string text;
        std::string trimmed;
    } rows[] = {
        {"", ""},       {" \t\n\r\v\f", ""}, {"a", "a"},       {"  a b\t", "a b"},
        {"a\r\n", "a"}, {"\v\fa", "a"},      {"\xA0", "\xA0"}, {std::string(" \0 ", 3), std::string("\0", 1)},
    };
    for (const auto& row : rows) {
        std::string text = row.text;
        KyStringUtils::Trim(text);
        EXPECT_EQ(text, row.trimmed);
    }
}

}  // namespace
