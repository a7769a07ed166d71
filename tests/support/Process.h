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

/// A child process. It is killed by the destructor, and when the test's process ends.
class Process {
public:
    explicit Process(const std::function<int()>& act) : m_id(fork()) {
        if (m_id != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(act());
    }
    /// Runs a command of the shell.
    explicit Process(const std::string& command)
        : Process([&command] { return execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr); }) {
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process() { End(SIGKILL); }

    /// Sends a signal, or none for 0, and waits for the end.
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
