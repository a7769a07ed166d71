// The program tfersvc: runs the transfer service until SIGTERM or SIGINT.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <exception>

#include "platform/KyDlog.h"
#include "service/DeviceLink.h"
#include "service/TferService.h"

namespace {

constexpr char kSource[] = "Tfersvc";
constexpr unsigned int kMaxPollPauseMs = 1000;
constexpr int kNotStarted = 1;
constexpr int kWrongCommandLine = 2;

struct Options {
    unsigned short deviceId = 0;
    unsigned int pollPauseMs = TferService::kDefaultPollPauseMs;
    const std::unique_ptr<DeviceOptions> device = MakeDeviceOptions();
};

void AddOptions(CLI::App& app, Options& options) {
    app.set_version_flag("--version", "tfersvc " KYTFER_VERSION);
    app.add_option("--device-id", options.deviceId, "identifier of the managed device")->required();
    app.add_option(
           "--poll-pause", options.pollPauseMs,
           "milliseconds between two polls of an arriving file, 0 to 1000; 20 if not given; 0 keeps a "
           "core busy")
        ->option_text("MS")
        ->check(CLI::Range(0U, kMaxPollPauseMs));
    options.device->AddTo(app);
}

int RunUntilSignal(const Options& options, const sigset_t& signals) {
    const std::unique_ptr<DeviceLink> link = options.device->MakeLink(options.deviceId);
    if (!link) return kNotStarted;
    TferService service(options.deviceId, *link, options.pollPauseMs);
    if (!service.Start()) return kNotStarted;
    int signal = 0;
    sigwait(&signals, &signal);
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "main", "signal %d: ending", signal);
    service.Stop();
    return 0;
}

// Blocks the signals before other threads exist: all threads inherit the mask, and sigwait() gets the
// signals.
sigset_t BlockSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app("The transfer service: moves files between the card and its device for other processes.",
                     "tfersvc");
        Options options;
        AddOptions(app, options);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app.exit(error) == 0 ? 0 : kWrongCommandLine;
        }
        return RunUntilSignal(options, BlockSignals());
    } catch (const std::exception& error) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "main", "%s", error.what());
        return kNotStarted;
    }
}
