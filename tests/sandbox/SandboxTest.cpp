#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/TempDir.h"

namespace {

TEST(SandboxRun, ExitStatusAndMessage) {
    const TempDir dir;  // below /var/tmp, which the sandbox hides
    const std::string lost = dir.Path() + "-lost";
    const struct {
        const char* name;
        std::string arguments;
        int status;
        const char* output;
    } rows[] = {
        {"program's own status", "-- sh -c 'exit 7'", 7, ""},
        {"environment", "-- sh -c 'echo sandbox=$KY_SANDBOX'", 0, "sandbox=1"},
        {"no capability", "-- grep CapEff: /proc/self/status", 0, "0000000000000000"},
        {"empty /run on request", "--run-empty -- sh -c 'ls -A /run | wc -l'", 0, "0\n"},
        {"empty directory on request", "--empty /etc -- sh -c 'ls -A /etc | wc -l'", 0, "0\n"},
        {"unknown option", "--bogus -- true", 125, "usage:"},
        {"directory absent", "--tmp /absent -- true", 125, "/absent: No such file"},
        {"cannot be started", "-- /etc/passwd", 126, "/etc/passwd: Permission denied"},
        {"hidden by the sandbox", "-- /var/tmp/program", 127, "hides what the machine has in /var/tmp"},
        {"keeps and hides files", "--local " + dir.Path() + " -- touch /var/local/kept " + lost, 0, ""},
    };
    for (const auto& row : rows) {
        const std::string command = SANDBOX_RUN " " + row.arguments + " >" + dir / "output" + " 2>&1";
        EXPECT_EQ(WEXITSTATUS(system(command.c_str())), row.status) << row.name;
        const std::string output = ReadFile(dir / "output");
        EXPECT_NE(output.find(row.output), std::string::npos) << row.name << ": " << output;
    }
    EXPECT_EQ(access((dir / "kept").c_str(), W_OK), 0);
    EXPECT_NE(access(lost.c_str(), F_OK), 0);
}

}  // namespace
