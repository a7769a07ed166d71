#include "service/ServiceOptions.h"

#include <CLI/CLI.hpp>
#include <charconv>

namespace {

constexpr unsigned int kMostPollPauseMs = 1000;

using FaultSetter = void (*)(SimFault& fault, long long value);

struct FaultKind {
    const char* name;
    bool takesValue;
    FaultSetter set;
};

const FaultKind kFaultKinds[] = {
    {"silent", false, [](SimFault& fault, long long) { fault.answer = SimAnswer::SILENT; }},
    {"none", false, [](SimFault& fault, long long) { fault.answer = SimAnswer::NONE_VALUE; }},
    {"twice", false, [](SimFault& fault, long long) { fault.answer = SimAnswer::READY_TWICE; }},
    {"late", true, [](SimFault& fault, long long ms) { fault.delayMs = static_cast<unsigned int>(ms); }},
    {"size", true, [](SimFault& fault, long long bytes) { fault.sizeDelta = bytes; }},
    {"announce", true, [](SimFault& fault, long long bytes) { fault.announceSizeDelta = bytes; }},
    {"nofile", false, [](SimFault& fault, long long) { fault.noFile = true; }},
    {"garbage", false, [](SimFault& fault, long long) { fault.garbage = true; }},
    {"refuse", false, [](SimFault& fault, long long) { fault.refuse = true; }},
    {"stuck", false, [](SimFault& fault, long long) { fault.stuck = true; }},
};

SimOperation ParseOperation(const std::string& text) {
    if (text == "fetch") return SimOperation::FETCH;
    if (text == "push") return SimOperation::PUSH;
    if (text == "directory") return SimOperation::DIRECTORY;
    throw CLI::ValidationError("--fault", "'" + text + "' is none of fetch, push and directory");
}

bool ParseNumber(const std::string& text, long long& number) {
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end;
}

/// Takes one OPERATION=KIND[:VALUE].
void AddFault(const std::string& text, ServiceOptions& options) {
    const size_t equals = text.find('=');
    const std::string kindText = equals == std::string::npos ? "" : text.substr(equals + 1);
    const size_t colon = kindText.find(':');
    const std::string name = kindText.substr(0, colon);
    SimFault& fault = options.faults[ParseOperation(text.substr(0, equals))];
    for (const FaultKind& kind : kFaultKinds) {
        if (name != kind.name) continue;
        long long value = 0;
        if (colon == std::string::npos ? kind.takesValue : !ParseNumber(kindText.substr(colon + 1), value))
            break;
        if (colon != std::string::npos && !kind.takesValue) break;
        return kind.set(fault, value);
    }
    throw CLI::ValidationError("--fault", "'" + text + "' is not OPERATION=KIND or OPERATION=KIND:NUMBER");
}

}  // namespace

bool ParseServiceOptions(int argc, char** argv, ServiceOptions& options, int& exitStatus) {
    CLI::App app(
        "The transfer service: moves files between the card and its device on request of other processes.",
        "tfersvc");
    std::vector<std::string> faults;
    app.set_version_flag("--version", "tfersvc " KYTFER_VERSION);
    app.add_option("--device-id", options.deviceId, "identifier of the managed device")->required();
    app.add_option(
           "--poll-pause", options.pollPauseMs,
           "milliseconds between two looks at an arriving file, 0 to 1000; 20 if not given; 0 keeps a "
           "core busy")
        ->option_text("MS")
        ->check(CLI::Range(0U, kMostPollPauseMs));
    app.add_option("--simulate", options.simulatedDirectory,
                   "simulate a device on the files of this directory")
        ->required()
        ->check(CLI::ExistingDirectory);
    app.add_option("--line-rate", options.lineRate,
                   "bytes per second of the simulated line; 0, the default, for no limit");
    app.add_flag("--usb", options.usbOnly, "the simulated device has the USB transport alone");
    app.add_option(
        "--fault", faults,
        "how the simulated device misbehaves: fetch, push or directory, =, and silent, none, twice, late:MS, "
        "size:BYTES, announce:BYTES, nofile, garbage, refuse or stuck; may be given several times");
    try {
        app.parse(argc, argv);
        for (const std::string& fault : faults)
            AddFault(fault, options);
        return true;
    } catch (const CLI::ParseError& error) {
        exitStatus = app.exit(error) == 0 ? 0 : 2;
        return false;
    }
}
