// The platform's check finds what is wrong: with a fault in the host's platform, the check that is about it fails.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "platformcheck/Setup.h"
#include "simdevice/SimDevice.h"

static std::string s_fault;  // the one that is in force

extern "C" {

int __real_fchmod(int file, mode_t mode);
int __wrap_fchmod(int file, mode_t mode);
int __wrap_fchmod(int file, mode_t mode) {
    return __real_fchmod(file, s_fault == "mode" ? mode & ~022U : mode);
}

void __wrap___dlog_printfex(int, const char*, const char*, const char*, ...);
void __wrap___dlog_printfex(int, const char*, const char*, const char*, ...) {
    if (s_fault == "errno") errno = EIO;
}
}

int main() {
    constexpr const char* rows[][2] = {
        {"mode", "fifo: it is made"},
        {"errno", "log: any text"},
        {"short", "proxy: a fetched file is complete"},
        {"stuck", "proxy: points are read"},
        {"refuse", "proxy: a file is pushed"},
    };
    ky_platform_check::Options options = SetUpPlatformCheck();
    options.workDirectory = std::getenv("KY_IPC_DIR");
    options.connect = [connect = options.connect] {
        auto device = connect();
        SimFault fault;
        fault.sizeDelta = s_fault == "short" ? -1 : 0;
        fault.stuck = s_fault == "stuck";
        fault.refuse = s_fault == "refuse";
        for (const SimOperation operation : {SimOperation::FETCH, SimOperation::PUSH})
            dynamic_cast<SimDevice&>(*device.proxy).SetFault(operation, fault);
        return device;
    };
    int wrong = 0;
    for (const auto& [fault, check] : rows) {
        s_fault = fault;
        options.filter = check;
        options.proxyBound = s_fault == "stuck" ? 300 : 120'000;
        if (ky_platform_check::Run(options, stdout) != 0) continue;
        std::printf("nothing found the fault \"%s\"\n", fault);
        ++wrong;
    }
    return wrong == 0 && std::filesystem::is_empty(options.workDirectory) ? 0 : 1;
}
