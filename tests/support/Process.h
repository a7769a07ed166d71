#ifndef SUPPORT_PROCESS_H
#define SUPPORT_PROCESS_H

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "support/Eventually.h"

constexpr std::chrono::seconds kDeadline{30};  // only a failing test waits so long

/// A program, or a part of the test's, in a process of its own. It is killed when the object goes, and when the
/// test's process does.
class Process {
public:
    explicit Process(const std::function<int()>& act) : m_id(fork()) {
        if (m_id != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(act());
    }
    /// A command for the shell, which it replaces.
    explicit Process(const std::string& command)
        : Process([&command] { return execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr); }) {
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process() { End(SIGKILL); }

    /// Sends a signal, none with 0, and waits for the end.
    /// @return the exit status, the negative number of a signal, or -1000 if it does not end
    int End(int signal, std::chrono::seconds deadline = kDeadline) {
        int status = 0;
        if (m_id <= 0 || kill(m_id, signal) != 0) return -1000;
        if (!WaitUntil([&] { return waitpid(m_id, &status, WNOHANG) == m_id; }, deadline)) return -1000;
        m_id = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    /// Its directory in /proc.
    std::string Proc() const { return "/proc/" + std::to_string(m_id); }

private:
    pid_t m_id;
};

#endif
