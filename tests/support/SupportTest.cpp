#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "platform/KyDlog.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/SteppedTime.h"
#include "support/SystemFaults.h"
#include "support/TempDir.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

timespec ClockNow(clockid_t clock) {
    timespec now{};
    EXPECT_EQ(0, clock_gettime(clock, &now));
    return now;
}

TEST(Sandbox, PermissionsHoldForTheTests) {
    WriteFile("/var/local/locked", "x");
    ASSERT_EQ(0, chmod("/var/local/locked", 0));
    EXPECT_EQ(-1, access("/var/local/locked", R_OK));
    EXPECT_EQ(0, unlink("/var/local/locked"));
}

TEST(SteppedTime, AutomaticSleepMovesTheWallClockOnly) {
    int hookCalls = 0;
    SteppedTime::OnSleep([&] {
        ++hookCalls;
        usleep(0);  // does not call the hook again
    });
    const timespec before = ClockNow(CLOCK_REALTIME);
    const timespec monotonicBefore = ClockNow(CLOCK_MONOTONIC);
    for (int i = 0; i < 720; ++i)
        usleep(250000);
    EXPECT_EQ(before.tv_sec + 180, ClockNow(CLOCK_REALTIME).tv_sec);
    EXPECT_LT(ClockNow(CLOCK_MONOTONIC).tv_sec, monotonicBefore.tv_sec + 90);
    EXPECT_EQ(seconds(180), SteppedTime::TotalSlept());
    EXPECT_EQ(720, hookCalls);
}

TEST(SteppedTime, HeldSleepsEndWithTheStepThatReachesTheirEnd) {
    SteppedTime::Hold();
    std::atomic<int> slices{0};
    std::thread sleeper([&] {
        for (; slices < 6; ++slices)
            usleep(250000);
    });
    ASSERT_TRUE(SteppedTime::WaitForSleepers(1));
    SteppedTime::Advance(milliseconds(249));
    ASSERT_TRUE(SteppedTime::WaitForSleepers(1));
    EXPECT_EQ(0, slices);
    SteppedTime::Advance(milliseconds(751));  // four slices by one step, and not a fifth
    EXPECT_TRUE(WaitUntil([&] { return slices == 4; }));
    ASSERT_TRUE(SteppedTime::WaitForSleepers(1));
    EXPECT_EQ(4, slices);
    SteppedTime::Release();
    SteppedTime::Hold();  // a new hold does not catch whom the release let go, only sleeps after that
    EXPECT_TRUE(WaitUntil([&] { return slices >= 5; }));
    SteppedTime::Release();
    sleeper.join();
}

TEST(SystemFaults, FailAsOftenAsAskedAndThenNoMore) {
    const TempDir dir;
    WriteFile(dir / "from", "bytes");
    systemfaults::FailRename(EXDEV, 2);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(-1, rename((dir / "from").c_str(), (dir / "to").c_str()));
        EXPECT_EQ(EXDEV, errno);
    }
    EXPECT_EQ(0, rename((dir / "from").c_str(), (dir / "to").c_str()));
    EXPECT_EQ("bytes", ReadFile(dir / "to"));

    pthread_t thread{};
    systemfaults::FailNextThread(EAGAIN);
    EXPECT_EQ(EAGAIN, pthread_create(
                          &thread, nullptr, [](void* p) { return p; }, nullptr));
    EXPECT_EQ(0, pthread_create(
                     &thread, nullptr, [](void* p) { return p; }, nullptr));
    EXPECT_EQ(0, pthread_join(thread, nullptr));

    pthread_mutex_t mutex{};
    systemfaults::FailNextMutex(ENOMEM, -1);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(ENOMEM, pthread_mutex_init(&mutex, nullptr));
    systemfaults::ClearFaults();
    EXPECT_EQ(0, pthread_mutex_init(&mutex, nullptr));
    pthread_mutex_destroy(&mutex);
}

TEST(LogCapture, TakesLinesWhileItLives) {
    LogCapture log;
    __dlog_printfex(KY_DLOG_ERROR, "Source", "Operation", "failed with %d", 5);
    __dlog_printfex(KY_DLOG_TRACE, "Source", "Operation", "Enter");
    EXPECT_EQ(1, log.Count(KY_DLOG_ERROR, "with 5"));
    EXPECT_EQ(0, log.Count(KY_DLOG_WARNING, "with 5"));
    EXPECT_EQ("Source", log.Find("Enter").source);
    EXPECT_EQ(-1, log.Find("Exit").level);
    EXPECT_EQ(std::vector<std::string>{"failed with 5"}, log.Texts("Operation"));
    EXPECT_EQ(2U, log.Texts("Operation", true).size());
}

TEST(TempDir, IsRemovedWithWhatMayNotBeEntered) {
    std::string path;
    {
        const TempDir dir;
        path = dir.Path();
        ASSERT_EQ(0, mkdir((dir / "locked").c_str(), 0755));
        WriteFile(dir / "locked/file", "");
        ASSERT_EQ(0, chmod((dir / "locked").c_str(), 0));
    }
    EXPECT_EQ(-1, access(path.c_str(), F_OK));
}

TEST(Process, CountsWhatItHolds) {
    const int threads = ThreadCount();
    const int descriptors = OpenDescriptors();
    SteppedTime::Hold();
    std::thread sleeper([] { usleep(1); });
    EXPECT_TRUE(SteppedTime::WaitForSleepers(1));
    EXPECT_EQ(threads + 1, ThreadCount());
    SteppedTime::Release();
    sleeper.join();
    EXPECT_TRUE(WaitUntil([&] { return ThreadCount() == threads; }));
    FILE* const file = fopen("/dev/null", "r");
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(descriptors + 1, OpenDescriptors());
    fclose(file);
    EXPECT_GT(AddressSpaceKiB(), 1000);
}

}  // namespace
