// What the rating of the unit does not show, and one row for each way in which harden-run restricts the program. Runs
// under harden-run; what the service needs, the service's own tests show there.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace {

/// The memory is writable first and code then.
long MakesCode() {
    void* const memory = mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return mprotect(memory, 1, PROT_READ | PROT_EXEC);
}

long RaisesLimit() {
    constexpr rlimit limit{257, 257};
    return setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(Hardened, WhatFails) {
    const struct {
        const char* name;
        long (*act)();
        int error;
    } rows[] = {
        {"others' files", [] { return long{creat("/var/local/file", 0600)}; }, EROFS},
        {"set-user-ID", [] { return long{chmod("/var/lib/tfersvc", 04750)}; }, EPERM},
        {"kernel log", [] { return long{open("/dev/kmsg", O_RDONLY | O_CLOEXEC)}; }, ENOENT},
        {"other process", [] { return long{access("/proc/1", F_OK)}; }, ENOENT},
        {"tunable", [] { return long{access("/proc/sys", F_OK)}; }, ENOENT},
        {"Internet", [] { return long{socket(AF_INET, SOCK_STREAM, 0)}; }, EAFNOSUPPORT},
        {"namespace", [] { return long{unshare(CLONE_NEWUSER)}; }, EPERM},
        {"personality", [] { return long{personality(ADDR_NO_RANDOMIZE)}; }, EPERM},
        {"code that was written", MakesCode, EPERM},
        {"more descriptors", RaisesLimit, EPERM},
    };
    for (const auto& row : rows) {
        errno = 0;
        EXPECT_EQ(row.act() < 0 ? errno : 0, row.error) << row.name;
    }
    EXPECT_EQ(umask(0), 0027U);
}

TEST(Hardened, WhatKills) {
    const pid_t process = fork();
    if (process == 0) _exit(static_cast<int>(syscall(SYS_io_uring_setup, 0, nullptr)));
    int status = 0;
    waitpid(process, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSYS) << status;
}

}  // namespace
