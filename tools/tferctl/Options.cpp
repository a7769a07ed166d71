#include "tferctl/Options.h"

#include <CLI/CLI.hpp>
#include <string>

#include "tferctl/Failure.h"

namespace ky_tferctl {
namespace {

constexpr char kDescription[] =
    "Lists, fetches and sends files of the managed device through the transfer service.";

constexpr char kFooter[] =
    "Exit status: 0 done; 1 failed; 2 wrong command line; 3 refused; 4 timed out; 5 no transfer service.\n"
    "See tferctl(1).";

class CommandLine {
public:
    CommandLine();
    void Parse(int argc, char** argv) { m_app.parse(argc, argv); }
    int Explain(const CLI::ParseError& error) const { return m_app.exit(error); }
    Options Result() const;

private:
    CLI::App& Add(Command command, const char* name, const char* description);
    void AddWaiting(CLI::App& command);
    void AddTimeOut(CLI::App& command);

    CLI::App m_app{kDescription, "tferctl"};
    Options m_options;
    bool m_noWait = false;
    double m_seconds = m_options.timeOut.count();
};

CommandLine::CommandLine() {
    m_app.set_version_flag("--version", "tferctl " KYTFER_VERSION);
    m_app.require_subcommand(1);
    m_app.footer(kFooter);
    m_app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("tferctl: ") + error.what() + " (see tferctl --help)\n";
    });

    CLI::App& status = Add(Command::STATUS, "status", "Show the transfer in progress, or the last one.");
    status.add_flag("--json", m_options.json, "print the service's JSON document");
    status.add_flag("--watch", m_options.watch, "follow the transfer in progress to its end");
    AddTimeOut(status);

    CLI::App& list = Add(Command::LIST, "ls", "Fetch the device's listing and show it.");
    list.add_option("--skip", m_options.skip, "skip the first N files")->option_text("N");
    list.add_option("--take", m_options.take, "show at most N files")->option_text("N");
    list.add_flag("--json", m_options.json, "print the library's JSON document of the page");
    AddWaiting(list);

    CLI::App& get = Add(Command::GET, "get", "Fetch a file from the device.");
    get.add_option("NAME", m_options.deviceFile, "transfer name of the file, or its file name on the device")
        ->required()
        ->option_text(" ");
    get.add_option("-o,--output", m_options.outputPath, "copy the file to FILE")->option_text("FILE");
    AddWaiting(get);

    CLI::App& put = Add(Command::PUT, "put", "Send a copy of a file to the device.");
    put.add_option("FILE", m_options.sourcePath, "the file; it is not changed")->required()->option_text(" ");
    AddWaiting(put);

    CLI::App& cancel = Add(Command::CANCEL, "cancel", "End the transfer in progress.");
    cancel.add_option("ID", m_options.transactionId, "end it only if it was requested with this identifier")
        ->option_text(" ");
}

CLI::App& CommandLine::Add(Command command, const char* name, const char* description) {
    CLI::App* const added = m_app.add_subcommand(name, description);
    added->callback([this, command] { m_options.command = command; });
    return *added;
}

void CommandLine::AddWaiting(CLI::App& command) {
    command.add_flag("--no-wait", m_noWait, "give up at once if another transfer is in progress");
    AddTimeOut(command);
}

void CommandLine::AddTimeOut(CLI::App& command) {
    command.add_option("--timeout", m_seconds, "give up after this time without progress; 300 if not given")
        ->option_text("SECONDS")
        ->check(CLI::Range(0.0, 1e6));
}

Options CommandLine::Result() const {
    Options options = m_options;
    options.wait = !m_noWait;
    options.timeOut = std::chrono::duration<double>(m_seconds);
    return options;
}

}  // namespace

std::optional<Options> ParseOptions(int argc, char** argv, int& exitStatus) {
    CommandLine line;
    try {
        line.Parse(argc, argv);
        return line.Result();
    } catch (const CLI::ParseError& error) {
        exitStatus = static_cast<int>(line.Explain(error) == 0 ? ExitStatus::DONE : ExitStatus::USAGE);
        return std::nullopt;
    }
}

}  // namespace ky_tferctl
