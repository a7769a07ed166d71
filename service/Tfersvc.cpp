#include "service/Tfersvc.h"

#include <signal.h>

#include <exception>

#include "platform/KyDlog.h"
#include "service/DeviceLink.h"
#include "service/ServiceOptions.h"
#include "service/TferService.h"

namespace {

constexpr char kSource[] = "Tfersvc";

int RunUntilSignal(const ServiceOptions& options, const sigset_t& signals) {
    const std::unique_ptr<DeviceLink> link = MakeDeviceLink(options);
    if (!link) return 1;
    TferService service(options.deviceId, *link, options.pollPauseMs);
    if (!service.Start()) return 1;
    int signal = 0;
    sigwait(&signals, &signal);
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "TfersvcMain", "signal %d: ending", signal);
    service.Stop();
    return 0;
}

}  // namespace

int TfersvcMain(int argc, char** argv) {
    ServiceOptions options;
    int exitStatus = 0;
    if (!ParseServiceOptions(argc, argv, options, exitStatus)) return exitStatus;
    // Blocked before there are threads, so that none of them is interrupted and this one can wait for them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    try {
        return RunUntilSignal(options, signals);
    } catch (const std::exception& error) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "TfersvcMain", "%s", error.what());
        return 1;
    }
}
