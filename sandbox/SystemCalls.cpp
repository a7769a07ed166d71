#include "SystemCalls.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <seccomp.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <array>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace sandbox {
namespace {

using Arguments = std::vector<scmp_arg_cmp>;

constexpr unsigned int LAST = ~0U;

/// The argument has all these bits.
scmp_arg_cmp Has(unsigned int argument, uint64_t bits) {
    return {argument, SCMP_CMP_MASKED_EQ, bits, bits};
}

scmp_arg_cmp Compare(unsigned int argument, scmp_compare how, uint64_t value) {
    return {argument, how, value, 0};
}

/// One filter. The kernel asks all that a process has loaded, and obeys the strictest answer.
class Filter {
public:
    explicit Filter(uint32_t otherCalls) : m_context(seccomp_init(otherCalls), seccomp_release) {
        if (!m_context) throw std::runtime_error("cannot make a system call filter");
    }

    void Add(uint32_t action, const std::string& call, const Arguments& arguments = {}) {
        const int number = seccomp_syscall_resolve_name(call.c_str());
        if (number == __NR_SCMP_ERROR) return;  // this machine has no such call
        const int status = seccomp_rule_add_array(
            m_context.get(), action, number, static_cast<unsigned int>(arguments.size()), arguments.data());
        if (status != 0 && status != -EDOM) throw std::runtime_error("no system call filter for " + call);
    }

    void Deny(const std::string& call, const Arguments& arguments = {}, uint16_t error = EPERM) {
        Add(SCMP_ACT_ERRNO(error), call, arguments);
    }

    void Load() {
        if (seccomp_load(m_context.get()) != 0)
            throw std::runtime_error("the kernel takes no system call filter");
    }

private:
    std::unique_ptr<void, void (*)(scmp_filter_ctx)> m_context;
};

/// All sets, by name, of systemd-analyze: a name, and below it, indented, what the set holds.
std::map<std::string, Unit::Words> SystemCallSets() {
    const std::unique_ptr<FILE, int (*)(FILE*)> output(
        popen("systemd-analyze syscall-filter 2>/dev/null", "r"), pclose);
    std::map<std::string, Unit::Words> sets;
    std::string name;
    std::array<char, 256> line{};
    while (output && fgets(line.data(), line.size(), output.get()) != nullptr) {
        std::istringstream words(line.data());
        std::string word;
        if (!(words >> word) || word[0] == '#') continue;
        if (line[0] == '@') {
            name = word;
        } else {
            sets[name].push_back(word);
        }
    }
    if (sets.empty()) throw std::runtime_error("systemd-analyze lists no sets of system calls");
    return sets;
}

void Expand(const std::map<std::string, Unit::Words>& sets, const std::string& name,
            std::set<std::string>& calls) {
    if (name[0] != '@') {
        calls.insert(name);
        return;
    }
    const auto found = sets.find(name);
    if (found == sets.end()) throw std::runtime_error("unknown set of system calls " + name);
    for (const std::string& member : found->second)
        Expand(sets, member, calls);
}

void RestrictNamespaces(Filter& filter) {
    filter.Deny("setns");
    filter.Deny("clone3", {}, ENOSYS);  // no filter can look at its flags
    for (const int flag : {CLONE_NEWCGROUP, CLONE_NEWIPC, CLONE_NEWNET, CLONE_NEWNS, CLONE_NEWPID,
                           CLONE_NEWUSER, CLONE_NEWUTS}) {
        filter.Deny("clone", {Has(0, static_cast<uint64_t>(flag))});
        filter.Deny("unshare", {Has(0, static_cast<uint64_t>(flag))});
    }
}

void RestrictSUIDSGID(Filter& filter) {
    const struct {
        const char* call;
        unsigned int mode;
        unsigned int flags = LAST;
    } calls[] = {{"chmod", 1}, {"fchmod", 1},  {"fchmodat", 2}, {"mkdir", 1},   {"mkdirat", 2},
                 {"mknod", 1}, {"mknodat", 2}, {"creat", 1},    {"open", 2, 1}, {"openat", 3, 2}};
    filter.Deny("openat2", {}, ENOSYS);
    for (const auto& row : calls) {
        for (const int bit : {S_ISUID, S_ISGID}) {
            Arguments arguments{Has(row.mode, static_cast<uint64_t>(bit))};
            if (row.flags != LAST) arguments.push_back(Has(row.flags, O_CREAT));
            filter.Deny(row.call, arguments);
        }
    }
}

void RestrictRealtime(Filter& filter) {
    for (const int policy : {SCHED_FIFO, SCHED_RR})
        filter.Deny("sched_setscheduler", {Compare(1, SCMP_CMP_EQ, static_cast<uint64_t>(policy))});
    filter.Deny("sched_setscheduler", {Compare(1, SCMP_CMP_GT, SCHED_IDLE)});
}

void LockPersonality(Filter& filter) {
    constexpr unsigned long current = 0xffffffff;
    filter.Deny("personality", {Compare(0, SCMP_CMP_NE, static_cast<uint64_t>(personality(current)))});
}

void DenyWriteExecute(Filter& filter) {
    for (const char* map : {"mmap", "mmap2"})
        filter.Deny(map, {Has(2, PROT_WRITE | PROT_EXEC)});
    for (const char* protect : {"mprotect", "pkey_mprotect"})
        filter.Deny(protect, {Has(2, PROT_EXEC)});
    filter.Deny("shmat", {Has(2, SHM_EXEC)});
}

void RestrictAddressFamilies(Filter& filter, const Unit::Words& families) {
    static const std::map<std::string, int> known{{"AF_UNIX", AF_UNIX},       {"AF_INET", AF_INET},
                                                  {"AF_INET6", AF_INET6},     {"AF_PACKET", AF_PACKET},
                                                  {"AF_NETLINK", AF_NETLINK}, {"none", AF_MAX}};
    if (families.empty()) return;
    std::set<int> allowed;
    for (const std::string& family : families) {
        if (known.count(family) == 0) throw std::runtime_error("unknown address family " + family);
        allowed.insert(known.at(family));
    }
    for (int family = 0; family < AF_MAX; ++family) {
        if (allowed.count(family) > 0) continue;
        filter.Deny("socket", {Compare(0, SCMP_CMP_EQ, static_cast<uint64_t>(family))}, EAFNOSUPPORT);
    }
    filter.Deny("socket", {Compare(0, SCMP_CMP_GE, AF_MAX)}, EAFNOSUPPORT);
}

}  // namespace

std::set<std::string> AllowedSystemCalls(const Unit& unit) {
    const auto sets = SystemCallSets();
    std::set<std::string> allowed;
    Expand(sets, "@default", allowed);
    for (Unit::Words names : unit.Lines("SystemCallFilter")) {
        const bool removes = !names.empty() && names.front()[0] == '~';
        if (removes) names.front().erase(0, 1);
        std::set<std::string> calls;
        for (const std::string& name : names)
            Expand(sets, name, calls);
        if (!removes) allowed.insert(calls.begin(), calls.end());
        for (const std::string& call : calls) {
            if (removes) allowed.erase(call);
        }
    }
    return allowed;
}

void FilterSystemCalls(const Unit& unit, const std::set<std::string>& allowed) {
    Filter denials(SCMP_ACT_ALLOW);
    if (unit.Is("RestrictNamespaces")) RestrictNamespaces(denials);
    if (unit.Is("RestrictSUIDSGID")) RestrictSUIDSGID(denials);
    if (unit.Is("RestrictRealtime")) RestrictRealtime(denials);
    if (unit.Is("LockPersonality")) LockPersonality(denials);
    if (unit.Is("MemoryDenyWriteExecute")) DenyWriteExecute(denials);
    RestrictAddressFamilies(denials, unit.All("RestrictAddressFamilies"));
    Filter list(SCMP_ACT_KILL_PROCESS);
    for (const std::string& call : allowed)
        list.Add(SCMP_ACT_ALLOW, call);
    denials.Load();
    list.Load();
}

}  // namespace sandbox
