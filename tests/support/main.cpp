#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

#include "support/SteppedTime.h"
#include "support/SystemFaults.h"

namespace {

/// No test leaves a moved clock or a failing call to the next one.
class Restorer : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo&) override {
        SteppedTime::Reset();
        systemfaults::ClearFaults();
    }
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (std::getenv("KY_SANDBOX") == nullptr && !testing::GTEST_FLAG(list_tests)) {
        std::cerr << "The tests write to /var/local and /var/tmp and therefore need a sandbox:\n"
                  << "  tests/sandbox.sh " << argv[0] << '\n';
        return 1;
    }
    testing::UnitTest::GetInstance()->listeners().Append(new Restorer);
    return RUN_ALL_TESTS();
}
