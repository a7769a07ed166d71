#include "Sandbox.h"

#include <fcntl.h>
#include <getopt.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace sandbox {
namespace {

constexpr unsigned int ROOT_APPEARS_AS = 1000;

constexpr char USAGE[] =
    "usage: sandbox-run [options] -- PROGRAM ARGS...\n"
    "Runs PROGRAM as an unprivileged user who sees directories of his own in place of the machine's.\n"
    "  --local DIR   show DIR as /var/local (otherwise: an empty one, gone with PROGRAM)\n"
    "  --tmp DIR     show DIR as /var/tmp (otherwise: an empty one, gone with PROGRAM)\n"
    "  --run DIR     show DIR as /run (otherwise: the machine's)\n"
    "  --run-empty   show an empty /run, gone with PROGRAM\n"
    "  --help        print this\n"
    "PROGRAM finds KY_SANDBOX=1 in its environment. Exit status: PROGRAM's, or 125 when the sandbox fails,\n"
    "126 when PROGRAM cannot be started, 127 when it is not found.\n";

constexpr char WHAT_TO_ENABLE[] =
    "The kernel has to grant user and mount namespaces. What may have to be enabled:\n"
    "  sysctl -w kernel.unprivileged_userns_clone=1             (where that setting exists)\n"
    "  sysctl -w user.max_user_namespaces=10000                 (where it is 0)\n"
    "  sysctl -w kernel.apparmor_restrict_unprivileged_userns=0 (where that setting exists)\n"
    "  in a container: run it with --privileged, or with --cap-add SYS_ADMIN and\n"
    "  --security-opt seccomp=unconfined --security-opt apparmor=unconfined\n";

/// An open descriptor, closed with its object and by exec.
class Descriptor {
public:
    Descriptor(const std::string& path, int flags) : m_fd(open(path.c_str(), flags | O_CLOEXEC)) {}
    Descriptor(Descriptor&& other) noexcept : m_fd(other.m_fd) { other.m_fd = -1; }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor& operator=(Descriptor&&) = delete;
    ~Descriptor() {
        if (m_fd >= 0) close(m_fd);
    }
    int Get() const { return m_fd; }

private:
    int m_fd;
};

/// Reports a failed system call; false, so that callers can return it.
bool Complain(const std::string& what) {
    std::fprintf(stderr, "sandbox-run: %s: %s\n", what.c_str(), std::strerror(errno));
    return false;
}

bool ComplainOfKernel(const std::string& what) {
    Complain(what);
    std::fputs(WHAT_TO_ENABLE, stderr);
    return false;
}

bool WriteFile(const std::string& path, const std::string& text) {
    const Descriptor file(path, O_WRONLY);
    return file.Get() >= 0 &&
           write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

/// Maps the one user of the namespace, who may map nobody but himself.
bool MapCaller(uid_t outsideUser, gid_t outsideGroup) {
    const uid_t user = outsideUser == 0 ? ROOT_APPEARS_AS : outsideUser;
    const gid_t group = outsideUser == 0 ? ROOT_APPEARS_AS : outsideGroup;
    return WriteFile("/proc/self/setgroups", "deny") &&
           WriteFile("/proc/self/uid_map", std::to_string(user) + " " + std::to_string(outsideUser) + " 1") &&
           WriteFile("/proc/self/gid_map", std::to_string(group) + " " + std::to_string(outsideGroup) + " 1");
}

bool EnterNamespaces() {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) {
        return MapCaller(user, group) || ComplainOfKernel("cannot map the user into a namespace");
    }
    if (user == 0 && unshare(CLONE_NEWNS) == 0) return true;
    return ComplainOfKernel("cannot enter namespaces");
}

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
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return ComplainOfKernel("cannot make the mounts private");
    }
    for (size_t i = 0; i < plan.replacements.size(); ++i) {
        const Replacement& replacement = plan.replacements[i];
        const bool mounted =
            replacement.content.empty() ? MountEmpty(replacement) : MountContent(replacement, contents[i]);
        if (!mounted) return ComplainOfKernel("cannot mount on " + replacement.path);
    }
    return true;
}

/// Gives up every capability. With no-new-privileges no exec gives one back, not even to the user number 0.
bool DropCapabilities() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    const std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && syscall(SYS_capset, &header, none.data()) == 0)
        return true;
    return Complain("cannot give up the capabilities");
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
    bool replaceRun = false;
    bool help = false;
    bool wrong = false;
};

Options ParseOptions(int argc, char** argv) {
    static const std::array<option, 6> known{{{"local", required_argument, nullptr, 'l'},
                                              {"tmp", required_argument, nullptr, 't'},
                                              {"run", required_argument, nullptr, 'r'},
                                              {"run-empty", no_argument, nullptr, 'e'},
                                              {"help", no_argument, nullptr, 'h'},
                                              {nullptr, 0, nullptr, 0}}};
    Options options;
    int letter = 0;
    while ((letter = getopt_long(argc, argv, "+", known.data(), nullptr)) != -1) {
        options.replaceRun |= letter == 'r' || letter == 'e';
        options.help |= letter == 'h';
        options.wrong |= letter == '?' || (optarg != nullptr && *optarg == '\0');
        if (letter == 'l') options.local.content = optarg;
        if (letter == 't') options.tmp.content = optarg;
        if (letter == 'r') options.run.content = optarg;
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
    if (options.replaceRun) plan.replacements.push_back(options.run);
    plan.command.push_back(nullptr);
    return Run(plan);
}

}  // namespace sandbox
