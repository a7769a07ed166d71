#include <cstring>

#include "platformcheck/Setup.h"

namespace {

int Usage(std::FILE* out, int status) {
    std::fputs(
        "usage: platform-check [--list] [FILTER]\n\n"
        "Checks the platform layer that it is linked with. With FILTER, only the checks whose names contain "
        "it.\n--list prints their names. Exit status: 0 all good, 1 a check failed, 2 wrong usage.\n",
        out);
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    ky_platform_check::Options options = SetUpPlatformCheck();
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0) return Usage(stdout, 0);
        if (std::strcmp(argv[i], "--list") == 0) {
            options.listOnly = true;
        } else if (*argv[i] == '-' || !options.filter.empty()) {
            return Usage(stderr, 2);
        } else {
            options.filter = argv[i];
        }
    }
    return ky_platform_check::Run(options, stdout);
}
