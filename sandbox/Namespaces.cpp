#include "Namespaces.h"

#include <errno.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <array>
#include <cstdio>
#include <cstring>

namespace sandbox {
namespace {

constexpr unsigned int ROOT_APPEARS_AS = 1000;

constexpr char WHAT_TO_ENABLE[] =
    "The kernel has to grant user and mount namespaces. What may have to be enabled:\n"
    "  sysctl -w kernel.unprivileged_userns_clone=1             (where that setting exists)\n"
    "  sysctl -w user.max_user_namespaces=10000                 (where it is 0)\n"
    "  sysctl -w kernel.apparmor_restrict_unprivileged_userns=0 (where that setting exists)\n"
    "  in a container: run it with --privileged, or with --cap-add SYS_ADMIN and\n"
    "  --security-opt seccomp=unconfined --security-opt apparmor=unconfined\n";

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

}  // namespace

bool Complain(const std::string& what) {
    std::fprintf(stderr, "%s: %s: %s\n", program_invocation_short_name, what.c_str(), std::strerror(errno));
    return false;
}

bool ComplainOfKernel(const std::string& what) {
    Complain(what);
    std::fputs(WHAT_TO_ENABLE, stderr);
    return false;
}

bool EnterNamespaces() {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) {
        if (!MapCaller(user, group)) return ComplainOfKernel("cannot map the user into a namespace");
    } else if (user != 0 || unshare(CLONE_NEWNS) != 0) {
        return ComplainOfKernel("cannot enter namespaces");
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) return true;
    return ComplainOfKernel("cannot make the mounts private");
}

// With no-new-privileges no exec gives one back, not even to the user number 0.
bool DropCapabilities() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    const std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && syscall(SYS_capset, &header, none.data()) == 0)
        return true;
    return Complain("cannot give up the capabilities");
}

}  // namespace sandbox
