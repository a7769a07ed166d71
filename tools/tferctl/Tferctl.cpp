#include "tferctl/Tferctl.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "host/KyHostLog.h"
#include "platform/KyIpcDirectory.h"
#include "tferctl/Commands.h"
#include "tferctl/ExitStatus.h"
#include "tferctl/Leftover.h"
#include "tferctl/Signals.h"
#include "tferctl/Transactions.h"

namespace ky_tferctl {
namespace {

void RunCommand(const Context& context) {
    switch (context.options.command) {
        case Command::STATUS:
            return RunStatus(context);
        case Command::LIST:
            return RunList(context);
        case Command::GET:
            return RunGet(context);
        case Command::PUT:
            return RunPut(context);
        case Command::CANCEL:
            return RunCancel(context);
    }
}

void Run(const Options& options) {
    const Leftover replyFifo(Leftover::FIFO, ky_ipc::IpcDirectory() + "/" + Service::ReplyFifo());
    Service service;
    ky_tools::Console out(stdout);
    ky_tools::Console notices(stderr);
    RunCommand({options, service, out, notices});
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        throw Failure(ExitStatus::FAILED, "Standard output could not be written.");
}

/// A closed one's number would go to the next file that is opened, which would then get what is told here.
/// Standard output stays unwritable.
void OccupyStandardDescriptors() {
    for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor)
        if (fcntl(descriptor, F_GETFD) < 0 && open("/dev/null", O_RDONLY) < 0) return;
}

int Complain(ExitStatus exitStatus, const char* sentence) {
    std::fprintf(stderr, "tferctl: %s\n", sentence);
    return static_cast<int>(exitStatus);
}

}  // namespace
}  // namespace ky_tferctl

int TferctlMain(int argc, char** argv) {
    using namespace ky_tferctl;
    // What the library logs of a failure is told in the one sentence.
    if (std::getenv("KY_LOG_LEVEL") == nullptr) ky_host::SetLogLevel(-1);
    OccupyStandardDescriptors();
    HandleSignals();
    try {
        int exitStatus = 0;
        const auto options = ParseOptions(argc, argv, exitStatus);
        if (options) Run(*options);
        return exitStatus;
    } catch (const Interrupted& interrupted) {
        const int exitStatus = Complain(ExitStatus::FAILED, interrupted.what());
        DieOf(interrupted.Signal());
        return exitStatus;
    } catch (const Failure& failure) {
        return Complain(failure.Exit(), failure.what());
    } catch (const std::exception& failure) {
        return Complain(ExitStatus::FAILED, failure.what());
    }
}
