#ifndef SERVICE_SERVICEPROCESS_H
#define SERVICE_SERVICEPROCESS_H

#include <sys/types.h>

#include <chrono>
#include <set>
#include <string>
#include <vector>

/// The built program tfersvc for device 3, in a process of its own. It is killed when the object goes, and
/// when the test's process does.
class ServiceProcess {
public:
    enum Sleeps { SHORT, REAL };
    static constexpr int kStillRuns = -1000;

    /// @param log  file that gets its output, behind what is in it
    ServiceProcess(std::string log, std::vector<std::string> arguments, Sleeps sleeps);
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;
    ~ServiceProcess();

    /// Sends a signal; returns when SIGSTOP has stopped the process.
    void Signal(int signal) const;

    /// Waits for its end. @return the exit status, the negative number of a signal, or kStillRuns
    int Wait(std::chrono::milliseconds deadline);

    /// How often the text stands in what it has logged.
    int Logged(const std::string& text) const;

    /// What its descriptors are open on.
    std::multiset<std::string> Descriptors() const;

private:
    const std::string m_log;
    pid_t m_id;
};

#endif
