#ifndef SERVICE_SERVICEFIXTURE_H
#define SERVICE_SERVICEFIXTURE_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "client/TferSvcMsgClient.h"
#include "support/Eventually.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using Names = std::multiset<std::string>;

// Before a service's command. A sanitizer would otherwise insist on being the first library.
constexpr char kShortSleeps[] =
    "env ASAN_OPTIONS=$ASAN_OPTIONS:verify_asan_link_order=0 LD_PRELOAD=" SHORT_SLEEPS " ";
constexpr char kLanding[] = "/var/local/tal/pldserver/3/";
constexpr char kDownload[] = "/var/local/tal/pldserver/3/tferFiles/";
constexpr char kControl[] = "tfersvc-CtrlFifo";
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

/// What is in the directory.
inline Names EntriesOf(const std::string& directory) {
    Names names;
    for (const auto& entry : fs::directory_iterator(directory))
        names.insert(entry.path().filename());
    return names;
}

/// The built service over a simulated device 3 with some files, and the test's process as its caller.
class ServiceFixture : public testing::Test {
protected:
    ServiceFixture() {
        fs::create_directory(m_files);
        setenv("KY_IPC_DIR", m_fifos.c_str(), 1);
    }

    /// Runs a service. @param by  what the shell reads before it
    std::unique_ptr<Process> Run(const std::string& options, const std::string& log, const std::string& by) {
        return std::make_unique<Process>(by + TFERSVC_PROGRAM " --device-id 3 --simulate " + m_files + " " +
                                         options + " >" + log + " 2>&1");
    }

    void Start(const std::string& options, const std::string& by) {
        WriteFile(m_log, "");
        m_service = Run(options, m_log, by);
    }

    bool AwaitLogged(const std::string& text) const {
        const auto logged = [&] { return ReadFile(m_log).find(text) != std::string::npos; };
        return WaitUntil(logged, kDeadline);
    }

    /// Ends the service. After a signal that it can take, nothing but its lock file is left beside the FIFOs.
    void ExpectEnd(int signal, int status) {
        constexpr std::chrono::seconds longest{3};  // two, and one for a machine that is busy
        EXPECT_EQ(m_service->End(signal, longest), status);
        m_service.reset();
        Names left = {"tfersvc.lock"};
        if (signal == SIGKILL) left.insert(kControl);
        EXPECT_EQ(EntriesOf(m_fifos), left);
    }

    const TempDir m_temp;
    const std::string m_files = m_temp / "device/", m_fifos = m_temp / "ipc/", m_log = m_temp / "log";
    TferSvcMsgClient m_client;
    std::unique_ptr<Process> m_service;
};

#endif
