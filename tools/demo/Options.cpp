#include "demo/Options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <set>

namespace ky_demo {
namespace {

namespace fs = std::filesystem;

constexpr int s_wrongUsage = 2;

constexpr char s_description[] =
    "Shows the card's file transfer at work: a card and a simulated device meet in this process, the card\n"
    "lists the device's files, fetches all of them and pushes one, and each file that arrived is compared\n"
    "byte for byte with the one that was sent.\n";

constexpr char s_footer[] =
    "The device's files are copies of the given ones, or some samples if none is given. The files and the\n"
    "engine's log stay there until the next run; where is said at the end. Progress is drawn as a bar on a\n"
    "terminal and told in plain lines elsewhere.\n"
    "\nThe program wants to be started by sandbox-run, which gives it a /var/local and a /var/tmp of its "
    "own:\n"
    "  ./dev demo [FILE...]\n"
    "\nExit status: 0 if all files arrived and are equal, 1 if not, 2 for a wrong command line.";

// The reason why the file cannot be one of the device's, or the empty string.
std::string WhyUnfit(const std::string& path) {
    std::error_code error;
    if (!fs::is_regular_file(path, error) || access(path.c_str(), R_OK) != 0)
        return "not a readable file: " + path;
    if (fs::file_size(path, error) > std::numeric_limits<std::uint32_t>::max() || error)
        return "larger than a transfer can be, which is 4 GiB: " + path;
    if (fs::path(path).filename().string().front() == '.') return "the device shows no hidden files: " + path;
    return {};
}

void CheckNames(const std::vector<std::string>& files) {
    std::set<std::string> names;
    for (const std::string& file : files) {
        const std::string name = fs::path(file).filename();
        if (!names.insert(name).second) throw CLI::ValidationError("FILE", "two files are called " + name);
    }
}

}  // namespace

std::optional<Options> ParseOptions(int argc, char** argv, int& exitStatus) {
    CLI::App app(s_description, "ky-demo");
    Options options;
    app.add_option("FILE", options.files, "files for the device to have")
        ->check(CLI::Validator([](std::string& path) { return WhyUnfit(path); }, ""))
        ->type_name("");
    app.footer(s_footer);
    try {
        app.parse(argc, argv);
        CheckNames(options.files);
        return options;
    } catch (const CLI::ParseError& error) {
        exitStatus = app.exit(error) == 0 ? 0 : s_wrongUsage;
        return std::nullopt;
    }
}

}  // namespace ky_demo
