#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <string>

#include "support/TempDir.h"

namespace {

/// Lets the kernel refuse all namespaces to this process and its children.
void RefuseNamespaces() {
    std::array<sock_filter, 4> program{{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                                        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_unshare, 0, 1),
                                        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
                                        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)}};
    const sock_fprog filter{program.size(), program.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
        _exit(99);
    }
}

struct Outcome {
    int status;
    std::string output;  // standard output and standard error
};

/// Runs `sandbox-run ARGUMENTS` by the shell.
Outcome RunSandbox(const std::string& arguments, bool refuse = false) {
    const TempDir dir;
    const std::string command = SANDBOX_RUN " " + arguments + " > " + dir / "output" + " 2>&1";
    const pid_t child = fork();
    if (child == 0) {
        if (refuse) RefuseNamespaces();
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(98);
    }
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(dir / "output")};
}

TEST(SandboxRun, ExitStatusAndMessage) {
    struct Row {
        const char* name;
        const char* arguments;
        int status;
        const char* output;
        bool refuse = false;
    };
    const std::array<Row, 12> rows{{
        {"program's own status", "-- sh -c 'exit 7'", 7, ""},
        {"environment", "-- sh -c 'echo sandbox=$KY_SANDBOX'", 0, "sandbox=1"},
        {"no capability", "-- grep CapEff: /proc/self/status", 0, "0000000000000000"},
        {"empty /run on request", "--run-empty -- sh -c 'ls -A /run | wc -l'", 0, "0\n"},
        {"help", "--help", 0, "usage:"},
        {"no program", "--", 125, "usage:"},
        {"unknown option", "--bogus -- true", 125, "usage:"},
        {"empty directory name", "--local= -- true", 125, "usage:"},
        {"directory absent", "--tmp /absent -- true", 125, "/absent: No such file"},
        {"cannot be started", "-- /etc/passwd", 126, "/etc/passwd: Permission denied"},
        {"hidden by the sandbox", "-- /var/tmp/program", 127, "hides what the machine has in /var/tmp"},
        {"kernel refuses", "-- true", 125, "kernel.unprivileged_userns_clone", true},
    }};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const Outcome outcome = RunSandbox(row.arguments, row.refuse);
        EXPECT_EQ(row.status, outcome.status) << outcome.output;
        EXPECT_NE(std::string::npos, outcome.output.find(row.output)) << outcome.output;
    }
}

TEST(SandboxRun, KeepsWhatIsWrittenToGivenDirectoriesOnly) {
    const TempDir dir;  // itself below /var/tmp, which the sandbox hides
    const std::string lost = dir.Path() + "-lost";
    const std::string program = " -- sh -c 'echo kept > /var/local/file; echo lost > " + lost + "'";
    EXPECT_EQ(0, RunSandbox("--local " + dir.Path() + program).status);
    EXPECT_EQ("kept\n", ReadFile(dir / "file"));
    struct stat file {};
    ASSERT_EQ(0, stat((dir / "file").c_str(), &file));
    EXPECT_EQ(getuid(), file.st_uid);
    EXPECT_EQ(-1, access(lost.c_str(), F_OK));
}

}  // namespace
