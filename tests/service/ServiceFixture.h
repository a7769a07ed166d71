#ifndef SERVICE_SERVICEFIXTURE_H
#define SERVICE_SERVICEFIXTURE_H

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>

#include "client/TferSvcMsgClient.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using Names = std::multiset<std::string>;

// Goes before the service's command. Without the option, a sanitizer refuses to be the second library.
constexpr char kShortSleeps[] =
    "env ASAN_OPTIONS=$ASAN_OPTIONS:verify_asan_link_order=0 LD_PRELOAD=" SHORT_SLEEPS " ";
constexpr char kLanding[] = "/var/local/tal/pldserver/3/";
constexpr char kDownload[] = "/var/local/tal/pldserver/3/tferFiles/";
constexpr char kControl[] = "tfersvc-CtrlFifo";

/// What is in the directory.
inline Names EntriesOf(const std::string& directory) {
    Names names;
    for (const auto& entry : fs::directory_iterator(directory))
        names.insert(entry.path().filename());
    return names;
}

/// The built service with a simulated device, and a client in the test's process.
class ServiceFixture : public testing::Test {
protected:
    ServiceFixture() {
        fs::create_directory(m_files);
        setenv("KY_IPC_DIR", m_fifos.c_str(), 1);
    }

    /// Runs a service. @param by  the start of the shell command
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

    /// Ends the service. Only its lock file may remain, and after SIGKILL its FIFO.
    void ExpectEnd(int signal, int status) {
        constexpr std::chrono::seconds longest{3};  // two seconds, and one for a busy machine
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
