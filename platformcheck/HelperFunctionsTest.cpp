// Trim, MakeDirPath, GetMAC and the log.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <thread>
#include <vector>

#include "platform/KyDlog.h"
#include "platform/KyNetUtils.h"
#include "platform/KyStringUtils.h"
#include "platform/KyTimerMgr.h"
#include "platform/tal_fileutils.h"
#include "platformcheck/PlatformTest.h"

using namespace ky_platform_check;

namespace {

static_assert(KyTimerMgr::INVALID_TIMER_ID == 0xFFFF, "the identifier of no timer");

constexpr int kThreads = 4;
constexpr mode_t kMasks[] = {0, 022, 0777};

/// Runs the work on several threads at once, with their numbers.
template <typename Work>
void OnThreads(Work work) {
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back(work, i);
    for (std::thread& thread : threads)
        thread.join();
}

/// The mode of a directory; -1 if there is none.
int ModeOf(const std::string& path) {
    struct stat found;
    const bool directory = stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
    return directory ? static_cast<int>(found.st_mode & 07777) : -1;
}

TEST(String, TrimRemovesWhiteSpaceFromBothEnds) {
    const std::string blanks = " \t\n\r\v\f";
    const std::map<std::string, std::string> trimmed = {{"", ""},
                                                        {"a", "a"},
                                                        {blanks, ""},
                                                        {blanks + "a" + blanks, "a"},
                                                        {"a b\tc ", "a b\tc"},
                                                        {" \xA0\xC2 ", "\xA0\xC2"},
                                                        {std::string(" \0 ", 3), std::string(1, '\0')}};
    for (const auto& [text, expected] : trimmed) {
        std::string seen = text;
        KyStringUtils::Trim(seen);
        EXPECT_EQ(seen, expected);
    }
}

class Directory : public PlatformTest {};

TEST_F(Directory, IsMadeWithItsModeUnderAnyUmask) {
    int number = 0;
    for (const mode_t mask : kMasks) {
        for (const int mode : {0700, 0755, 0777}) {
            SCOPED_TRACE("umask " + std::to_string(mask) + ", mode " + std::to_string(mode) + " (decimal)");
            const std::string top = m_directory + "/made" + std::to_string(number++);
            const std::string path = top + "/a/b";
            umask(mask);
            EXPECT_TRUE(tal_fileutils::MakeDirPath(path + (number % 2 == 0 ? "/" : ""),
                                                   static_cast<unsigned int>(mode), true));
            for (const std::string& made : {top, top + "/a", path})
                EXPECT_EQ(ModeOf(made), mode) << made;
            EXPECT_TRUE(tal_fileutils::MakeDirPath(path, 0711, true)) << "of an existing directory";
            EXPECT_EQ(ModeOf(path), mode) << "of an existing directory";
        }
    }
}

TEST_F(Directory, FailureSetsErrno) {
    const std::string file = m_directory + "/in-the-way";
    WriteFileBytes(file, "x");
    const struct {
        std::string path;
        bool parents;
        bool made;
    } rows[] = {{m_directory + "/missing/child", false, false},
                {file, false, false},
                {file + "/child", true, false},
                {"", true, false},
                {m_directory + "/single", false, true}};
    for (const auto& row : rows) {
        errno = 0;
        const bool made = tal_fileutils::MakeDirPath(row.path, 0755, row.parents);
        const int error = errno;
        EXPECT_EQ(made, row.made) << row.path;
        EXPECT_TRUE(made || error != 0) << "errno is 0 for " << row.path;
    }
}

TEST_F(Directory, SeveralThreadsMakeTheSame) {
    umask(0);
    OnThreads([&](int /*thread*/) {
        for (int i = 0; i < 20; ++i) {
            const std::string path = m_directory + "/together" + std::to_string(i) + "/a/b";
            EXPECT_TRUE(tal_fileutils::MakeDirPath(path, 0755, true));
        }
    });
    EXPECT_EQ(ModeOf(m_directory + "/together19/a/b"), 0755);
}

TEST(Network, MacIsTheSameForEveryThread) {
    const std::string mac = tal_netutils::KyNetUtils::GetMAC();
    EXPECT_NE(mac, "");
    OnThreads([&](int /*thread*/) {
        for (int i = 0; i < 50; ++i)
            EXPECT_EQ(tal_netutils::KyNetUtils::GetMAC(), mac);
    });
}

/// Discards standard error during the test, where the platform may write the lines.
class Log : public testing::Test {
protected:
    void SetUp() override {
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, STDERR_FILENO);
        close(null);
    }
    void TearDown() override {
        dup2(m_stderr, STDERR_FILENO);
        close(m_stderr);
    }

private:
    const int m_stderr = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
};

TEST_F(Log, TakesAnyTextAndKeepsErrno) {
    const std::string texts[] = {"", "line\nline\r\t\x01", "\xFF\xFE", "100% %s", std::string(200000, 'x')};
    for (const int level : {KY_DLOG_ERROR, KY_DLOG_WARNING, KY_DLOG_NOTICE, KY_DLOG_TRACE}) {
        for (const std::string& text : texts) {
            errno = ENOTTY;
            __dlog_printfex(level, "platform-check", "TakesAnyText", "%s", text.c_str());
            EXPECT_EQ(errno, ENOTTY);
            errno = 0;
            __dlog_printfex(level, "platform-check", "TakesAnyText", "%d %ld %zu", 1, 2L, text.size());
            EXPECT_EQ(errno, 0);
        }
    }
}

TEST_F(Log, SeveralThreadsWriteAtOnce) {
    OnThreads([&](int thread) {
        for (int i = 0; i < 25; ++i) {
            errno = thread + 1;
            __dlog_printfex(KY_DLOG_NOTICE, "platform-check", "SeveralThreads", "thread %d, line %d", thread,
                            i);
            EXPECT_EQ(errno, thread + 1);
        }
    });
}

}  // namespace
