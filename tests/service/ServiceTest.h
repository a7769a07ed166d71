#ifndef SERVICE_SERVICETEST_H
#define SERVICE_SERVICETEST_H

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "ServiceProcess.h"
#include "client/TferSvcMsgClient.h"
#include "messages/KyTferStatusMsg.h"
#include "platform/KyDlog.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

using Record = KyTferStatusMsg;

/// A service over a simulated device of some files, and the test's process as its caller. At the end SIGTERM
/// must end the service, with no descriptor lost and nothing but its lock file left in the directory of the
/// FIFOs.
class ServiceTest : public testing::Test {
protected:
    static constexpr char kLanding[] = "/var/local/tal/pldserver/3/";
    static constexpr char kDownload[] = "/var/local/tal/pldserver/3/tferFiles/";
    static constexpr char kControl[] = "tfersvc-CtrlFifo";
    static constexpr std::chrono::seconds kDeadline{30};  // only a failing test waits so long

    ServiceTest();
    ~ServiceTest() override;

    /// Starts the service in the place of the one before, and waits for its first answer.
    void Launch(const std::vector<std::string>& arguments, ServiceProcess::Sleeps sleeps);

    /// Starts the service in the place of the one before, with short sleeps, and waits until it is ready.
    void Start(const std::vector<std::string>& arguments = {});

    /// Sends the service a signal. @return as ServiceProcess::Wait
    int Stop(int signal, std::chrono::seconds deadline = kDeadline);

    /// The service must have as many descriptors open as before its first request.
    void ExpectNoDescriptorLost() const;

    /// Puts a file on the device and returns its bytes.
    std::string Put(const std::string& name, size_t size) const;

    // The requests. An answer is "accepted: " or "refused: " with its text, or "null".
    std::string Fetch(const std::string& name, size_t size);
    std::string Push(const std::string& path);
    std::string Directory();
    std::string Cancel(const std::string& transaction);
    Record Status();  ///< fails the test without an answer

    /// Waits for the record to fail or to be complete, which it first is while the file still lies where it
    /// has landed.
    Record AwaitComplete();
    Record AwaitEnd();  ///< and until the file has its place

    bool AwaitLogged(const std::string& text) const;
    std::set<std::string> Entries() const;  ///< of the FIFOs' directory

    const int m_ownDescriptors = OpenDescriptors();
    const TempDir m_temp;
    const std::string m_files = m_temp / "device/";
    const std::string m_fifos = m_temp / "ipc/";
    const std::string m_log = m_temp / "log";
    const LogCapture m_clientLog{KY_DLOG_ERROR};
    TferSvcMsgClient m_client;
    std::unique_ptr<ServiceProcess> m_service;

private:
    void Run(const std::vector<std::string>& arguments, ServiceProcess::Sleeps sleeps);

    std::multiset<std::string> m_idleDescriptors;
};

#endif
