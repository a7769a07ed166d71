// The program tferctl. Results go to standard output. Notices, and one sentence for a failure, go to standard
// error.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

#include "host/KyHostLog.h"
#include "tferctl/Commands.h"
#include "tferctl/Failure.h"
#include "tferctl/Signals.h"

using namespace ky_tferctl;

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
    const TemporaryPath replyFifo(TemporaryPath::FIFO, Service::ReplyFifoPath());
    Service service;
    Console out(stdout);
    Console notices(stderr);
    RunCommand({options, service, out, notices});
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        throw Failure(ExitStatus::FAILED, "Standard output could not be written.");
}

// Otherwise open() could reuse a closed standard descriptor and receive our output. Standard output stays
// unwritable.
void OccupyStandardDescriptors() {
    for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor)
        if (fcntl(descriptor, F_GETFD) < 0 && open("/dev/null", O_RDONLY) < 0) return;
}

int Complain(ExitStatus exitStatus, const char* sentence) {
    std::fprintf(stderr, "tferctl: %s\n", sentence);
    return static_cast<int>(exitStatus);
}

}  // namespace

int main(int argc, char** argv) {
    // Without KY_LOG_LEVEL, a failure is told by its sentence only.
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
        TerminateBy(interrupted.Signal());
        return exitStatus;
    } catch (const Failure& failure) {
        return Complain(failure.Exit(), failure.what());
    } catch (const std::exception& failure) {
        return Complain(ExitStatus::FAILED, failure.what());
    }
}
