#include "ServiceProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

#include "host/KyFd.h"
#include "support/Eventually.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;

namespace {

[[noreturn]] void Become(std::vector<std::string>& words, const std::string& log, bool shortSleeps) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int output = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    if (shortSleeps) {
        const char* const given = getenv("ASAN_OPTIONS");
        const std::string options = given == nullptr ? "" : std::string(given) + ":";
        // The sanitizer would otherwise insist on being the first library.
        setenv("ASAN_OPTIONS", (options + "verify_asan_link_order=0").c_str(), 1);
        setenv("LD_PRELOAD", SHORT_SLEEPS, 1);
    }
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    execv(arguments[0], arguments.data());
    _exit(127);
}

}  // namespace

ServiceProcess::ServiceProcess(std::string log, std::vector<std::string> arguments, Sleeps sleeps)
    : m_log(std::move(log)) {
    arguments.insert(arguments.begin(), {TFERSVC_PROGRAM, "--device-id", "3"});
    m_id = fork();
    if (m_id == 0) Become(arguments, m_log, sleeps == SHORT);
}

ServiceProcess::~ServiceProcess() {
    if (m_id <= 0) return;
    kill(m_id, SIGKILL);
    waitpid(m_id, nullptr, 0);
}

void ServiceProcess::Signal(int signal) const {
    if (m_id <= 0) return;
    kill(m_id, signal);
    if (signal == SIGSTOP) waitpid(m_id, nullptr, WUNTRACED);
}

int ServiceProcess::Wait(std::chrono::milliseconds deadline) {
    int status = 0;
    if (m_id <= 0 || !WaitUntil([&] { return waitpid(m_id, &status, WNOHANG) == m_id; }, deadline))
        return kStillRuns;
    m_id = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

int ServiceProcess::Logged(const std::string& text) const {
    const std::string log = ReadFile(m_log);
    int count = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + text.size()))
        ++count;
    return count;
}

std::multiset<std::string> ServiceProcess::Descriptors() const {
    std::multiset<std::string> open;
    for (const auto& descriptor : fs::directory_iterator("/proc/" + std::to_string(m_id) + "/fd")) {
        std::error_code closed;
        const std::string target = fs::read_symlink(descriptor, closed);
        if (!closed) open.insert(target);
    }
    return open;
}
