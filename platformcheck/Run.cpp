#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <system_error>
#include <thread>

#include "platformcheck/Check.h"

using namespace ky_platform_check;

namespace {

constexpr size_t MOST_REPORT = 4000;

struct Result {
    Judge::Verdict verdict = Judge::BAD;
    std::string report;
    bool ended = false;  // it has closed its end of the pipe
};

/// Reads what a check reports until it ends or the bound has passed.
Result Collect(int pipe, int bound) {
    Result result;
    const long long end = Now() + bound;
    for (long long left = bound; left > 0 && !result.ended; left = end - Now()) {
        pollfd report = {pipe, POLLIN, 0};
        char bytes[4096];
        if (poll(&report, 1, static_cast<int>(left)) <= 0) continue;
        const ssize_t count = read(pipe, bytes, sizeof bytes);
        if (count > 0) result.report.append(bytes, static_cast<size_t>(count));
        result.ended = count == 0;
    }
    const size_t mark = result.report.rfind(Judge::END);
    if (!result.ended) {
        result.report += "\nit has not ended within " + std::to_string(bound) + " ms";
    } else if (mark != std::string::npos && mark + 1 < result.report.size()) {
        result.verdict = static_cast<Judge::Verdict>(result.report[mark + 1]);
        result.report.erase(mark, 2);
    } else {
        result.report += "\nit has died";
    }
    return result;
}

void RunJudged(const Check& check, const Bench& bench, int pipe) {
    Judge judge(pipe);
    try {
        check.run(judge, bench);
    } catch (const std::exception& error) {
        judge.Expect(false, std::string("an exception: ") + error.what());
    }
    judge.Finish();
}

/// The check in a child process, with what that writes to standard error in the report.
[[noreturn]] void BeChild(const Check& check, const Bench& bench, int pipe) {
    setpgid(0, 0);
    dup2(pipe, STDERR_FILENO);
    dup2(pipe, STDOUT_FILENO);
    RunJudged(check, bench, pipe);
    _exit(0);
}

Result RunInChild(const Check& check, const Bench& bench, int bound) {
    int ends[2];
    if (pipe(ends) != 0) return {Judge::BAD, "no pipe", true};
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        BeChild(check, bench, ends[1]);
    }
    close(ends[1]);
    Result result = child < 0 ? Result{Judge::BAD, "no child process", true} : Collect(ends[0], bound);
    close(ends[0]);
    if (child < 0) return result;
    if (!result.ended) {
        kill(-child, SIGKILL);
        kill(child, SIGKILL);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (result.ended && WIFSIGNALED(status)) result.report += std::string(": ") + strsignal(WTERMSIG(status));
    return result;
}

/// The check on a thread of its own, which stays behind if it does not end: it shares nothing with this one
/// but the pipe.
Result RunOnThread(const Check& check, const Bench& bench, int bound) {
    int ends[2];
    if (pipe(ends) != 0) return {Judge::BAD, "no pipe", true};
    try {
        std::thread([check, bench, out = ends[1]] {
            RunJudged(check, bench, out);
            close(out);
        }).detach();
    } catch (const std::system_error&) {
        close(ends[1]);
    }
    Result result = Collect(ends[0], bound);
    if (result.ended) close(ends[0]);
    return result;
}

/// Prints the results and counts them.
class Report {
public:
    Report(const Options& options, std::FILE* out) : m_options(options), m_out(out) {}

    bool Wanted(const char* name) const { return std::strstr(name, m_options.filter.c_str()) != nullptr; }
    bool Failed() const { return m_failed; }

    void Print(int number, const char* name, const Result& result) {
        const bool bad = result.verdict == Judge::BAD;
        m_failed |= bad;
        std::fprintf(m_out, "%s %d - %s", bad ? "not ok" : "ok", number, name);
        if (result.verdict == Judge::SKIPPED)
            std::fprintf(m_out, " # SKIP %s", result.report.substr(result.report.rfind('\n') + 1).c_str());
        std::fputc('\n', m_out);
        if (bad) PrintLines(result.report);
        std::fflush(m_out);
    }

private:
    void PrintLines(const std::string& text) const {
        bool start = true;
        for (const char c : text.substr(0, MOST_REPORT)) {
            if (start && c == '\n') continue;
            if (start) std::fputs("#   ", m_out);
            std::fputc(c, m_out);
            start = c == '\n';
        }
        if (!start) std::fputc('\n', m_out);
    }

    const Options& m_options;
    std::FILE* const m_out;
    bool m_failed = false;
};

Checks ChecksWithoutDevice() {
    Checks all;
    for (const Checks& group : {MessageChecks(), FifoChecks(), FifoDamageChecks(), HelperChecks()})
        all.insert(all.end(), group.begin(), group.end());
    return all;
}

void RunChecks(const Options& options, Bench& bench, Report& report) {
    int number = 0;
    bool tidy = true;
    for (const Check& check : ChecksWithoutDevice()) {
        if (!report.Wanted(check.name)) continue;
        ++number;
        const Result result = RunInChild(check, bench, options.bound);
        tidy &= result.verdict != Judge::BAD;
        report.Print(number, check.name, result);
    }
    if (!tidy)
        RunInChild({"", [](Judge&, const Bench& left) { RemoveFifos(left.fifo); }}, bench, options.bound);
    bool connected = false;
    bool stuck = false;
    for (const Check& check : ProxyChecks()) {
        if (!report.Wanted(check.name)) continue;
        ++number;
        if (!connected && options.connect) bench.device = options.connect();
        connected = true;
        Result result = {Judge::SKIPPED, stuck ? "a call of the proxy has not returned" : "no device", true};
        if (!stuck && bench.device.proxy) result = RunOnThread(check, bench, options.proxyBound);
        stuck |= !result.ended;
        report.Print(number, check.name, result);
    }
}

}  // namespace

int ky_platform_check::Run(const Options& options, std::FILE* out) {
    Report report(options, out);
    Checks all = ChecksWithoutDevice();
    for (const Check& check : ProxyChecks())
        all.push_back(check);
    int wanted = 0;
    for (const Check& check : all) {
        if (!report.Wanted(check.name)) continue;
        ++wanted;
        if (options.listOnly) std::fprintf(out, "%s\n", check.name);
    }
    if (options.listOnly) return wanted > 0 ? 0 : 1;
    std::string directory = options.workDirectory + "/ky-platform-check-XXXXXX";
    if (wanted == 0 || mkdtemp(directory.data()) == nullptr) {
        std::fprintf(out, "Bail out! %s\n", wanted == 0 ? "no check has such a name" : "no work directory");
        return 1;
    }
    Bench bench = {directory, "ky-platform-check-" + std::to_string(getpid()), {}};
    std::fprintf(out, "TAP version 13\n1..%d\n", wanted);
    std::fflush(out);
    RunChecks(options, bench, report);
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
    return report.Failed() ? 1 : 0;
}
