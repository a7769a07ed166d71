// The platform's check finds what is wrong: with a fault in the device, the check that is about it fails.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "platformcheck/Setup.h"
#include "simdevice/SimDevice.h"

int main() {
    constexpr const char* rows[][2] = {
        {"short", "proxy: a fetched file is complete"},
        {"stuck", "proxy: points are read"},
        {"refuse", "proxy: a file is pushed"},
    };
    std::string fault;  // the one that is in force
    ky_platform_check::Options options = SetUpPlatformCheck();
    options.workDirectory = std::getenv("KY_IPC_DIR");
    options.connect = [&fault, connect = options.connect] {
        auto device = connect();
        SimFault set;
        set.sizeDelta = fault == "short" ? -1 : 0;
        set.stuck = fault == "stuck";
        set.refuse = fault == "refuse";
        for (const SimOperation operation : {SimOperation::FETCH, SimOperation::PUSH})
            dynamic_cast<SimDevice&>(*device.proxy).SetFault(operation, set);
        return device;
    };
    bool good = true;
    for (const auto& [name, check] : rows) {
        options.filter = check;
        for (const char* const inForce : {"", name}) {
            fault = inForce;
            options.proxyBound = fault == "stuck" ? 300 : 120'000;
            const bool passed = ky_platform_check::Run(options, stdout) == 0;
            if (passed != fault.empty()) std::printf("unexpected with the fault \"%s\"\n", inForce);
            good &= passed == fault.empty();
        }
    }
    return good && std::filesystem::is_empty(options.workDirectory) ? 0 : 1;
}
