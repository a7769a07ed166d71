// What the restrictions of the service's unit leave, and what they take. Runs under harden-run.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <thread>

#include "host/KyFd.h"

namespace {

constexpr char kOwn[] = "/var/local/tal/pldserver/file";

bool Opens(const char* path, int flags, mode_t mode = 0600) {
    return static_cast<bool>(KyFd(open(path, flags | O_CLOEXEC, mode)));
}

bool Creates(const char* path, mode_t mode = 0600) {
    return Opens(path, O_WRONLY | O_CREAT, mode);
}

bool Sockets(int family, int type) {
    return static_cast<bool>(KyFd(socket(family, type | SOCK_CLOEXEC, 0)));
}

bool Maps(int protection, int later) {
    constexpr size_t size = 4096;
    void* const memory = mmap(nullptr, size, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return false;
    const bool changed = mprotect(memory, size, later) == 0;
    const int error = errno;
    munmap(memory, size);
    errno = error;
    return changed;
}

bool ListsInterfaces() {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return false;
    freeifaddrs(list);
    return true;
}

TEST(Hardened, WhatIsGrantedAndWhatFails) {
    const struct {
        const char* name;
        std::function<bool()> act;
        int error;
    } rows[] = {
        {"staging", [] { return Creates(kOwn); }, 0},
        {"flag files", [] { return Creates("/var/tmp/dmp/file"); }, 0},
        {"FIFOs", [] { return mkfifo("/run/ky-ipc/fifo", 0660) == 0; }, 0},
        {"state", [] { return Creates("/var/lib/tfersvc/device/file"); }, 0},
        {"interfaces, for the card's address", ListsInterfaces, 0},
        {"device", [] { return Opens("/dev/null", O_RDWR); }, 0},
        {"own process", [] { return Opens("/proc/self/status", O_RDONLY); }, 0},
        {"others' state", [] { return Creates("/var/lib/file"); }, EROFS},
        {"run", [] { return Creates("/run/file"); }, EROFS},
        {"others' temporary files", [] { return Creates("/var/tmp/file"); }, EROFS},
        {"others' files", [] { return Creates("/var/local/file"); }, EROFS},
        {"set-user-ID by chmod", [] { return chmod(kOwn, 04755) == 0; }, EPERM},
        {"set-group-ID by open", [] { return Creates("/run/ky-ipc/file", 02755); }, EPERM},
        {"kernel log", [] { return Opens("/dev/kmsg", O_RDONLY); }, ENOENT},
        {"other process", [] { return Opens("/proc/1/status", O_RDONLY); }, ENOENT},
        {"tunable", [] { return Opens("/proc/sys/kernel/hostname", O_RDONLY); }, ENOENT},
        {"Internet", [] { return Sockets(AF_INET, SOCK_STREAM); }, EAFNOSUPPORT},
        {"local socket", [] { return Sockets(AF_UNIX, SOCK_STREAM); }, EAFNOSUPPORT},
        {"packets", [] { return Sockets(AF_PACKET, SOCK_DGRAM); }, EAFNOSUPPORT},
        {"user namespace", [] { return unshare(CLONE_NEWUSER) == 0; }, EPERM},
        {"other namespace", [] { return setns(-1, 0) == 0; }, EPERM},
        {"flags out of sight", [] { return syscall(SYS_clone3, nullptr, 0) == 0; }, ENOSYS},
        {"personality", [] { return personality(ADDR_NO_RANDOMIZE) >= 0; }, EPERM},
        {"writable code", [] { return Maps(PROT_READ | PROT_WRITE | PROT_EXEC, PROT_READ); }, EPERM},
        {"code that was written", [] { return Maps(PROT_READ | PROT_WRITE, PROT_READ | PROT_EXEC); }, EPERM},
    };
    for (const auto& row : rows) {
        errno = 0;
        const bool done = row.act();
        EXPECT_EQ(done ? 0 : errno, row.error) << row.name;
    }
    std::thread([] {}).join();
}

TEST(Hardened, WhatKills) {
    for (const long call : {SYS_mount, SYS_chroot, SYS_ptrace, SYS_sched_setscheduler, SYS_mlockall,
                            SYS_keyctl, SYS_io_uring_setup, SYS_clock_settime}) {
        const pid_t process = fork();
        if (process == 0) _exit(syscall(call, 0, SCHED_FIFO, 0, 0, 0) == 0);
        int status = 0;
        waitpid(process, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSYS) << call << " " << status;
    }
}

TEST(Hardened, StateOfTheProcess) {
    struct statvfs root {};
    EXPECT_EQ(statvfs("/", &root), 0);
    EXPECT_NE(root.f_flag & ST_RDONLY, 0U) << "the root is not read-only";
    struct stat home {
    }, top{};
    EXPECT_TRUE(stat("/root", &home) == 0 && stat("/", &top) == 0 && home.st_dev != top.st_dev)
        << "the home is not hidden";
    for (unsigned long capability = 0; capability <= CAP_LAST_CAP; ++capability)
        EXPECT_LE(prctl(PR_CAPBSET_READ, capability), 0) << capability;
    EXPECT_EQ(prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0), 1);
    EXPECT_EQ(prctl(PR_GET_SECCOMP), 2);
    rlimit limit{};
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(limit.rlim_max, 256U);
    EXPECT_EQ(umask(0), 0027U);
}

}  // namespace
