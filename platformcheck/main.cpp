// GoogleTest has no time-out: an alarm ends the program when a test does not end.
#include <signal.h>
#include <unistd.h>

#include <cstring>

#include "platformcheck/PlatformTest.h"

namespace {

std::string* s_message;  // what the alarm's handler writes; never deleted

void OnAlarm(int) {
    static_cast<void>(!write(STDOUT_FILENO, s_message->data(), s_message->size()));
    _exit(1);
}

class Watchdog : public testing::EmptyTestEventListener {
public:
    Watchdog() {
        s_message = new std::string;
        struct sigaction action = {};
        action.sa_handler = OnAlarm;
        sigaction(SIGALRM, &action, nullptr);
    }

    void OnTestStart(const testing::TestInfo& test) override {
        const std::string suite = test.test_suite_name();
        const auto& setup = ky_platform_check::TheSetup();
        const unsigned int bound = suite == "Proxy" ? setup.proxyBound : setup.bound;
        *s_message = "[  FAILED  ] " + suite + "." + test.name() + " has not ended within " +
                     std::to_string(bound) + " seconds. The remaining tests do not run.\n";
        alarm(bound);
    }

    void OnTestEnd(const testing::TestInfo& /*test*/) override { alarm(0); }
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (argc > 1) {
        std::fprintf(stderr, "platform-check: unknown argument '%s'; see --help\n", argv[1]);
        return 2;
    }
    testing::UnitTest::GetInstance()->listeners().Append(new Watchdog);
    return RUN_ALL_TESTS();
}
