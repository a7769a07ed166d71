#include "demo/Demo.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "demo/CardAndDevice.h"
#include "demo/Console.h"
#include "demo/DirectoryStep.h"
#include "demo/FetchStep.h"
#include "demo/LogFile.h"
#include "demo/NegotiationStep.h"
#include "demo/Options.h"
#include "demo/OutsidePath.h"
#include "demo/PushStep.h"
#include "demo/Workspace.h"

namespace ky_demo {
namespace {

bool Transfer(Console& console, CardAndDevice& both, const Workspace& workspace) {
    std::vector<KyTferDirEntry> entries;
    return Negotiate(console, both) && ListDirectory(console, both, entries) &&
           FetchFiles(console, both, entries, workspace) && PushFile(console, both, workspace.Largest());
}

bool Run(const Options& options) {
    Console console(stdout);
    const Workspace workspace(options.files);
    const LogFile log(Workspace::LogPath());
    CardAndDevice both(Workspace::DeviceDirectory());
    const bool good = Transfer(console, both, workspace);
    console.Heading("Final status");
    console.Line(both.Engine().GetStatus("").GetJsonStatus());
    console.Heading(good ? "All files arrived, and are equal byte for byte" : "FAILED, as said above");
    console.Line("  Fetched files  " + OutsidePath(KyTferClient::GetHmiDownloadDirectory()));
    console.Line("  Engine's log   " + OutsidePath(Workspace::LogPath()));
    return good;
}

}  // namespace

int Main(int argc, char** argv) {
    try {
        int exitStatus = EXIT_SUCCESS;
        const auto options = ParseOptions(argc, argv, exitStatus);
        if (!options) return exitStatus;
        if (std::getenv("KY_SANDBOX") == nullptr) {
            std::fputs("ky-demo: works in /var/local and /var/tmp, and in a sandbox only: use ./dev demo\n",
                       stderr);
            return EXIT_FAILURE;
        }
        return Run(*options) ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "ky-demo: %s\n", error.what());
        return EXIT_FAILURE;
    }
}

}  // namespace ky_demo
