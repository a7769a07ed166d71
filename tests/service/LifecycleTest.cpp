// How services begin and end, also by force, and what becomes of their callers.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>

#include <filesystem>
#include <functional>

#include "ServiceTest.h"
#include "host/KyFd.h"

namespace fs = std::filesystem;

extern "C" int __real_poll(pollfd* files, nfds_t count, int milliseconds);
extern "C" int __wrap_poll(pollfd* files, nfds_t count, int milliseconds);

namespace {

constexpr std::chrono::seconds kLongestEnd{3};  // two, and one for a machine that is busy

/// Called once in the place of the client's wait for a reply, which then is at its end.
std::function<void()> s_insteadOfWait;

class LifecycleTest : public ServiceTest {
protected:
    /// Waits until the service has taken all that stands in its FIFO.
    void AwaitTaken() const {
        const KyFd fifo(open((m_fifos + kControl).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        int waiting = -1;
        EXPECT_TRUE(WaitUntil([&] { return ioctl(fifo.Get(), FIONREAD, &waiting) == 0 && waiting == 0; }));
    }
};

TEST_F(LifecycleTest, AKilledServiceHindersNeitherItsCallerNorTheNext) {
    const std::string bytes = Put("event.log", 100'000);
    const struct {
        const char* name;
        bool taken;
    } rows[] = {{"killed before it reads the request", false}, {"killed with the request", true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Start({"--fault", "fetch=stuck"});
        ASSERT_EQ(Fetch("event.log", bytes.size()), "accepted: ");
        ASSERT_TRUE(AwaitLogged("request file(event.log) from pldproxy"));
        if (!row.taken) m_service->Signal(SIGSTOP);
        s_insteadOfWait = [&] {
            if (row.taken) AwaitTaken();
            EXPECT_EQ(Stop(SIGKILL), -SIGKILL);
        };
        EXPECT_EQ(Fetch("event.log", bytes.size()), "null");
        EXPECT_EQ(Entries(), (std::set<std::string>{kControl, "tfersvc.lock"}));

        Start();
        ASSERT_EQ(Fetch("event.log", bytes.size()), "accepted: ");
        EXPECT_EQ(AwaitEnd().GetXferFullFilePath(), std::string(kDownload) + "event.log");
        EXPECT_TRUE(ReadFile(std::string(kDownload) + "event.log") == bytes);
        fs::remove(std::string(kDownload) + "event.log");
    }
}

TEST_F(LifecycleTest, OnlyOneServiceAtATime) {
    const std::string bytes = Put("event.log", 100'000);
    Start();
    ServiceProcess second(m_temp / "second.log", {"--simulate", m_files}, ServiceProcess::SHORT);
    EXPECT_EQ(second.Wait(kDeadline), 1);
    EXPECT_EQ(second.Logged("another transfer service is running"), 1);
    ASSERT_EQ(Fetch("event.log", bytes.size()), "accepted: ");
    EXPECT_EQ(AwaitEnd().GetXferFullFilePath(), std::string(kDownload) + "event.log");
}

TEST_F(LifecycleTest, SignalsEndTheService) {
    const std::string source = "/var/local/settings.cfg";
    const std::string bytes = Put("event.log", 300'000);
    const std::function<std::string()> fetch = [&] { return Fetch("event.log", bytes.size()); };
    const std::function<std::string()> directory = [&] { return Directory(); };
    const std::function<std::string()> push = [&] { return Push(source); };
    const struct {
        const char* name;
        std::vector<std::string> arguments;
        std::function<std::string()> ask;  // null for no transaction
        const char* logged;                // once it is under way
        int signal;
    } rows[] = {
        {"idle", {}, nullptr, "", SIGTERM},
        {"idle, interrupted", {}, nullptr, "", SIGINT},
        {"fetch stuck", {"--fault", "fetch=stuck"}, fetch, "request file(event.log) from pldproxy", SIGTERM},
        {"fetch on a slow line", {"--line-rate", "100"}, fetch, "Looking for file(", SIGTERM},
        {"fetch unanswered", {"--fault", "fetch=silent"}, fetch, "Send value(event.log)", SIGTERM},
        {"fetch answered late", {"--fault", "fetch=late:99999999"}, fetch, "Send value(event.log)", SIGTERM},
        {"directory silent", {"--fault", "directory=silent"}, directory, "MonitorGetDirRequest", SIGTERM},
        {"listing stuck", {"--fault", "directory=stuck"}, directory, "request file(listing.txt)", SIGTERM},
        {"push stuck", {"--fault", "push=stuck"}, push, "PLD Transfer Start", SIGTERM},
        {"push on a slow line", {"--line-rate", "100"}, push, "PLD Transfer Start", SIGTERM},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        WriteFile(source, bytes);
        Start(row.arguments);
        if (row.ask) {
            EXPECT_EQ(row.ask().substr(0, 9), "accepted:");
            EXPECT_TRUE(AwaitLogged(row.logged));
            EXPECT_EQ(Status().GetStatus(), Record::TFER_STATUS_INPROGRESS);
        }
        EXPECT_EQ(Stop(row.signal, kLongestEnd), 0);
        EXPECT_EQ(Entries(), std::set<std::string>{"tfersvc.lock"});
    }
    fs::remove(source);
}

TEST_F(LifecycleTest, ASignalEndsAServiceThatIsStarting) {
    Launch({}, ServiceProcess::REAL);
    EXPECT_EQ(Stop(SIGTERM, kLongestEnd), 0);
}

}  // namespace

extern "C" int __wrap_poll(pollfd* files, nfds_t count, int milliseconds) {
    constexpr int longest = 50'000;
    if (!s_insteadOfWait || milliseconds < longest) return __real_poll(files, count, milliseconds);
    std::exchange(s_insteadOfWait, nullptr)();
    return __real_poll(files, count, 0);
}
