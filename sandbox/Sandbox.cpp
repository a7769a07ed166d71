#include "Sandbox.h"

#include <fcntl.h>
#include <getopt.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Namespaces.h"

namespace sandbox {
namespace {

constexpr char USAGE[] =
    "usage: sandbox-run [options] -- PROGRAM ARGS...\n"
    "Runs PROGRAM as an unprivileged user who sees directories of his own in place of the machine's.\n"
    "  --local DIR   show DIR as /var/local (otherwise: an empty one, gone with PROGRAM)\n"
    "  --tmp DIR     show DIR as /var/tmp (otherwise: an empty one, gone with PROGRAM)\n"
    "  --run DIR     show DIR as /run (otherwise: the machine's)\n"
    "  --run-empty   show an empty /run, gone with PROGRAM\n"
    "  --empty DIR   show an empty DIR, gone with PROGRAM; may be given several times\n"
    "  --help        print this\n"
    "PROGRAM finds KY_SANDBOX=1 in its environment. Exit status: PROGRAM's, or 125 when the sandbox fails,\n"
    "126 when PROGRAM cannot be started, 127 when it is not found.\n";

bool MountEmpty(const Replacement& replacement) {
    std::array<char, 16> options{};
    std::snprintf(options.data(), options.size(), "mode=%04o", replacement.mode);
    return mount("tmpfs", replacement.path.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.data()) == 0;
}

bool MountContent(const Replacement& replacement, const Descriptor& content) {
    const std::string source = "/proc/self/fd/" + std::to_string(content.Get());
    return mount(source.c_str(), replacement.path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
}

/// Opens every content before the first mount, which may hide the others' paths. The descriptors must have
/// been opened in the mount namespace in which they are mounted.
bool OpenContents(const Plan& plan, std::vector<Descriptor>& contents) {
    for (const Replacement& replacement : plan.replacements) {
        const std::string& path = replacement.content.empty() ? replacement.path : replacement.content;
        contents.emplace_back(path, O_PATH | O_DIRECTORY);
        if (contents.back().Get() < 0) return Complain("cannot use directory " + path);
    }
    return true;
}

bool ReplaceDirectories(const Plan& plan) {
    std::vector<Descriptor> contents;
    if (!OpenContents(plan, contents)) return false;
    for (size_t i = 0; i < plan.replacements.size(); ++i) {
        const Replacement& replacement = plan.replacements[i];
        const bool mounted =
            replacement.content.empty() ? MountEmpty(replacement) : MountContent(replacement, contents[i]);
        if (!mounted) return ComplainOfKernel("cannot mount on " + replacement.path);
    }
    return true;
}

int Become(const Plan& plan) {
    setenv("KY_SANDBOX", "1", 1);
    execvp(plan.command.front(), plan.command.data());
    const int error = errno;
    Complain(std::string("cannot start ") + plan.command.front());
    if (error != ENOENT) return EXIT_CANNOT_EXECUTE;
    for (const Replacement& replacement : plan.replacements) {
        if (std::string(plan.command.front()).rfind(replacement.path + "/", 0) != 0) continue;
        std::fprintf(stderr, "The sandbox hides what the machine has in %s.\n", replacement.path.c_str());
    }
    return EXIT_NO_SUCH_PROGRAM;
}

/// What the command line says before "--".
struct Options {
    Replacement local{"/var/local", "", 0755};
    Replacement tmp{"/var/tmp", "", 01777};
    Replacement run{"/run", "", 0755};
    std::vector<Replacement> others;
    bool replaceRun = false;
    bool help = false;
    bool wrong = false;
};

Options ParseOptions(int argc, char** argv) {
    static const std::array<option, 7> known{{{"local", required_argument, nullptr, 'l'},
                                              {"tmp", required_argument, nullptr, 't'},
                                              {"run", required_argument, nullptr, 'r'},
                                              {"run-empty", no_argument, nullptr, 'e'},
                                              {"empty", required_argument, nullptr, 'd'},
                                              {"help", no_argument, nullptr, 'h'},
                                              {nullptr, 0, nullptr, 0}}};
    Options options;
    int letter = 0;
    while ((letter = getopt_long(argc, argv, "+", known.data(), nullptr)) != -1) {
        options.replaceRun |= letter == 'r' || letter == 'e';
        options.help |= letter == 'h';
        const std::string directory = optarg == nullptr ? "" : optarg;
        options.wrong |= letter == '?' || (optarg != nullptr && directory.empty());
        if (letter == 'l') options.local.content = directory;
        if (letter == 't') options.tmp.content = directory;
        if (letter == 'd') options.others.push_back({directory, "", 0755});
        if (letter == 'r') options.run.content = directory;
    }
    return options;
}

}  // namespace

int Run(const Plan& plan) {
    if (!EnterNamespaces() || !ReplaceDirectories(plan) || !DropCapabilities()) return EXIT_SANDBOX_FAILED;
    return Become(plan);
}

int Main(int argc, char** argv) {
    const Options options = ParseOptions(argc, argv);
    if (options.help) return std::fputs(USAGE, stdout) < 0 ? EXIT_SANDBOX_FAILED : EXIT_SUCCESS;
    if (options.wrong || optind >= argc) {
        std::fputs(USAGE, stderr);
        return EXIT_SANDBOX_FAILED;
    }
    Plan plan{{options.local, options.tmp}, {argv + optind, argv + argc}};
    plan.replacements.insert(plan.replacements.end(), options.others.begin(), options.others.end());
    if (options.replaceRun) plan.replacements.push_back(options.run);
    plan.command.push_back(nullptr);
    return Run(plan);
}

}  // namespace sandbox
