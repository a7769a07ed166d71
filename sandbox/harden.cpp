// harden-run: runs a program under the restrictions of a systemd unit, without systemd and without root.
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "Namespaces.h"
#include "Sandbox.h"
#include "SystemCalls.h"
#include "Unit.h"

namespace fs = std::filesystem;

namespace sandbox {
namespace {

constexpr char USAGE[] =
    "usage: harden-run UNIT -- PROGRAM ARGS...\n"
    "Runs PROGRAM under the restrictions of UNIT's [Service] section that take neither systemd nor root.\n"
    "Exit status: PROGRAM's, or 125 when that fails, 126 when PROGRAM cannot be started.\n";

const Unit::Words APPLIED{"AmbientCapabilities",  "CapabilityBoundingSet",
                          "LimitMEMLOCK",         "LimitNOFILE",
                          "LockPersonality",      "MemoryDenyWriteExecute",
                          "NoNewPrivileges",      "PrivateDevices",
                          "PrivateMounts",        "PrivateUsers",
                          "ProcSubset",           "ProtectHome",
                          "ProtectProc",          "ProtectSystem",
                          "ReadWritePaths",       "RestrictAddressFamilies",
                          "RestrictNamespaces",   "RestrictRealtime",
                          "RestrictSUIDSGID",     "RuntimeDirectory",
                          "RuntimeDirectoryMode", "StateDirectory",
                          "StateDirectoryMode",   "SystemCallArchitectures",
                          "SystemCallFilter",     "UMask"};

// What only systemd can do. Most of what the Protect...= lines forbid is forbidden all the same, by the file
// systems that are read-only or not there, by the lack of capabilities and by the system call filter.
const Unit::Words SYSTEMDS{"Type",
                           "ExecStart",
                           "Restart",
                           "RestartSec",
                           "TimeoutStopSec",  // starting and stopping
                           "User",
                           "Group",
                           "KeyringMode",
                           "RemoveIPC",  // another user than the caller
                           "DevicePolicy",
                           "IPAddressDeny",
                           "ProtectClock",
                           "TasksMax",  // control groups
                           "ProtectControlGroups",
                           "ProtectHostname",
                           "ProtectKernelLogs",
                           "ProtectKernelModules",
                           "ProtectKernelTunables"};

// Of these only the value that asks for nothing.
const std::pair<const char*, const char*> NOT_ASKED[] = {{"PrivateTmp", "no"}, {"PrivateNetwork", "no"}};

void Check(bool done, const std::string& what) {
    if (!done) throw std::system_error(errno, std::generic_category(), what);
}

void CheckKeys(const Unit& unit) {
    Unit::Words known = APPLIED;
    known.insert(known.end(), SYSTEMDS.begin(), SYSTEMDS.end());
    for (const auto& [key, value] : NOT_ASKED) {
        if (unit.Lines(key).empty() || unit.Is(key, value)) known.emplace_back(key);
    }
    std::string unknown = unit.Unknown(known);
    for (const char* key : {"CapabilityBoundingSet", "AmbientCapabilities"}) {
        if (unit.Lines(key).empty() || !unit.All(key).empty()) unknown = key;
    }
    if (!unknown.empty()) throw std::runtime_error("cannot do what the unit says of " + unknown);
}

unsigned int Mode(const Unit& unit, const std::string& key, unsigned int otherwise) {
    return unit.Value(key).empty() ? otherwise
                                   : static_cast<unsigned int>(std::stoul(unit.Value(key), nullptr, 8));
}

/// The directories of RuntimeDirectory= or StateDirectory=, which are made if they are missing.
void MakeDirectories(const Unit& unit, const std::string& key, const std::string& below, Unit::Words& made) {
    for (const std::string& name : unit.All(key)) {
        made.push_back(below + name);
        if (mkdir(made.back().c_str(), 0700) != 0) {
            Check(errno == EEXIST, made.back());
        } else {
            Check(chmod(made.back().c_str(), Mode(unit, key + "Mode", 0755)) == 0, made.back());
        }
    }
}

Unit::Words WritablePaths(const Unit& unit) {
    Unit::Words paths;
    MakeDirectories(unit, "RuntimeDirectory", "/run/", paths);
    MakeDirectories(unit, "StateDirectory", "/var/lib/", paths);
    for (const std::string& path : unit.All("ReadWritePaths")) {
        const bool optional = path[0] == '-';
        if (!optional || fs::exists(path.substr(1))) paths.push_back(path.substr(optional ? 1 : 0));
    }
    return paths;
}

/// A copy of what is mounted at a path, to be mounted somewhere else.
class Tree {
public:
    explicit Tree(std::string path)
        : m_path(std::move(path)),
          m_copy(open_tree(AT_FDCWD, m_path.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC)) {
        Check(m_copy.Get() >= 0, m_path);
    }
    const std::string& Path() const { return m_path; }

    void MountOn(const std::string& path) const {
        Check(move_mount(m_copy.Get(), "", AT_FDCWD, path.c_str(), MOVE_MOUNT_F_EMPTY_PATH) == 0, path);
    }

    /// Mounts the file where it was, in an empty file system that has been mounted above.
    void RestoreFile() const {
        fs::create_directories(fs::path(m_path).parent_path());
        Check(Descriptor(m_path, O_WRONLY | O_CREAT).Get() >= 0, m_path);
        MountOn(m_path);
    }

private:
    std::string m_path;
    Descriptor m_copy;
};

void MountEmpty(const char* path) {
    Check(mount("tmpfs", path, "tmpfs", MS_NOSUID | MS_NOEXEC, "mode=0755") == 0, path);
}

void HideDevices() {
    std::vector<Tree> nodes;
    for (const char* name : {"null", "zero", "full", "random", "urandom", "tty"})
        nodes.emplace_back(std::string("/dev/") + name);
    MountEmpty("/dev");
    for (const Tree& node : nodes)
        node.RestoreFile();
}

/// Shows no home; but a build tree may lie in one, with the program and a library that it is to load.
void HideHomes(const std::string& program) {
    const char* const library = getenv("LD_PRELOAD");
    std::vector<Tree> needed;
    for (const std::string& file : {program, std::string(library == nullptr ? "" : library)}) {
        if (!file.empty()) needed.emplace_back(fs::absolute(file));
    }
    for (const char* path : {"/home", "/root", "/run/user"}) {
        if (fs::exists(path)) MountEmpty(path);
    }
    for (const Tree& file : needed) {
        if (!fs::exists(file.Path())) file.RestoreFile();
    }
}

/// Shows of all processes this one, which becomes the program, and nothing else. A new proc file system would
/// take a new process namespace, in which the program had another number than its starter knows it by.
void HideProcesses() {
    const std::string own = "/proc/" + std::to_string(getpid());
    const Tree process(own);
    MountEmpty("/proc");
    Check(mkdir(own.c_str(), 0555) == 0, own);
    process.MountOn(own);
    fs::create_symlink(std::to_string(getpid()), "/proc/self");
}

void SetReadOnly(const std::string& path, bool readOnly) {
    mount_attr attributes{};
    (readOnly ? attributes.attr_set : attributes.attr_clr) = MOUNT_ATTR_RDONLY;
    const int status = mount_setattr(AT_FDCWD, path.c_str(), AT_RECURSIVE, &attributes, sizeof attributes);
    Check(status == 0, "cannot change the mounts of " + path);
}

void ArrangeFiles(const Unit& unit, const std::string& program) {
    const Unit::Words writable = WritablePaths(unit);
    if (!EnterNamespaces()) throw std::runtime_error("no namespaces, no restrictions");
    for (const std::string& path : writable)
        Check(mount(path.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, path);
    if (unit.Is("PrivateDevices")) HideDevices();
    if (unit.Is("ProtectHome")) HideHomes(program);
    if (unit.Is("ProtectProc", "invisible") && unit.Is("ProcSubset", "pid")) HideProcesses();
    if (!unit.Is("ProtectSystem", "strict")) return;
    SetReadOnly("/", true);
    for (const std::string& path : writable)
        SetReadOnly(path, false);
}

void SetLimit(const Unit& unit, const char* key, __rlimit_resource resource) {
    if (unit.Value(key).empty()) return;
    const rlim_t value = std::stoul(unit.Value(key));
    const rlimit limit{value, value};
    Check(setrlimit(resource, &limit) == 0, key);
}

void DropBoundingSet() {
    Check(prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) == 0, "ambient capabilities");
    unsigned long capability = 0;
    while (prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) == 0)
        ++capability;
    Check(errno == EINVAL && capability > 0, "bounding set of capabilities");
}

int Harden(const char* unitPath, char** command) {
    const Unit unit(unitPath);
    CheckKeys(unit);
    const auto allowed = AllowedSystemCalls(unit);
    int signalAtParentsEnd = 0;
    prctl(PR_GET_PDEATHSIG, &signalAtParentsEnd);
    ArrangeFiles(unit, command[0]);
    SetLimit(unit, "LimitNOFILE", RLIMIT_NOFILE);
    SetLimit(unit, "LimitMEMLOCK", RLIMIT_MEMLOCK);
    umask(Mode(unit, "UMask", 0022));
    DropBoundingSet();
    if (!DropCapabilities()) return EXIT_SANDBOX_FAILED;
    prctl(PR_SET_PDEATHSIG, signalAtParentsEnd);  // the namespace has cleared it
    FilterSystemCalls(unit, allowed);
    execv(command[0], command);
    Complain(command[0]);
    return EXIT_CANNOT_EXECUTE;
}

}  // namespace
}  // namespace sandbox

int main(int argc, char** argv) {
    if (argc < 4 || std::string(argv[2]) != "--") {
        std::fputs(sandbox::USAGE, stderr);
        return sandbox::EXIT_SANDBOX_FAILED;
    }
    try {
        return sandbox::Harden(argv[1], argv + 3);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "harden-run: %s\n", error.what());
        return sandbox::EXIT_SANDBOX_FAILED;
    }
}
