#include "tferctl/Leftover.h"

#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>

#include "tferctl/ExitStatus.h"

namespace ky_tferctl {
namespace {

struct Slot {
    std::array<char, PATH_MAX> path;
    volatile sig_atomic_t kind;  // a Leftover::Kind; set after the path
};

std::array<Slot, 4> s_slots;
std::size_t s_taken = 0;

// Called from a signal handler too.
void Remove(const Slot& slot) {
    struct stat found;
    const char* const path = slot.path.data();
    if (slot.kind == Leftover::FILE) unlink(path);
    if (slot.kind == Leftover::DIRECTORY) rmdir(path);
    if (slot.kind == Leftover::FIFO && lstat(path, &found) == 0 && S_ISFIFO(found.st_mode)) unlink(path);
}

std::size_t Fill(Leftover::Kind kind, const std::string& path) {
    if (s_taken == s_slots.size() || path.size() >= PATH_MAX)
        throw Failure(ExitStatus::FAILED, "The path is too long: " + path);
    Slot& slot = s_slots[s_taken];
    slot.path[path.copy(slot.path.data(), path.size())] = '\0';
    std::atomic_signal_fence(std::memory_order_release);
    slot.kind = kind;
    return s_taken++;
}

}  // namespace

Leftover::Leftover(Kind kind, const std::string& path) : m_slot(Fill(kind, path)) {}

Leftover::~Leftover() {
    const int error = errno;
    Remove(s_slots[m_slot]);
    Keep();
    s_taken = m_slot;
    errno = error;
}

void Leftover::Keep() const {
    s_slots[m_slot].kind = NOTHING;
}

// The last one first: a directory goes after its files.
void RemoveLeftovers() {
    for (auto slot = s_slots.rbegin(); slot != s_slots.rend(); ++slot)
        Remove(*slot);
}

}  // namespace ky_tferctl
