#include "tferctl/Signals.h"

#include <limits.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>

#include "tferctl/Failure.h"

namespace ky_tferctl {
namespace {

constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE};
constexpr long long kSameSignalMs = 250;

struct Slot {
    std::array<char, PATH_MAX> path;
    volatile sig_atomic_t kind;  // a TemporaryPath::Kind; set after the path
};

std::array<Slot, 4> s_slots;
std::size_t s_usedSlots = 0;

// A signal handler calls this too.
void Remove(const Slot& slot) {
    struct stat found;
    const char* const path = slot.path.data();
    if (slot.kind == TemporaryPath::FILE) unlink(path);
    if (slot.kind == TemporaryPath::DIRECTORY) rmdir(path);
    if (slot.kind == TemporaryPath::FIFO && lstat(path, &found) == 0 && S_ISFIFO(found.st_mode)) unlink(path);
}

std::size_t Fill(TemporaryPath::Kind kind, const std::string& path) {
    if (s_usedSlots == s_slots.size() || path.size() >= PATH_MAX)
        throw Failure(ExitStatus::FAILED, "The path is too long: " + path);
    Slot& slot = s_slots[s_usedSlots];
    slot.path[path.copy(slot.path.data(), path.size())] = '\0';
    std::atomic_signal_fence(std::memory_order_release);
    slot.kind = kind;
    return s_usedSlots++;
}

// In reverse order: a directory is removed after its files.
void RemoveTemporaryPaths() {
    for (auto slot = s_slots.rbegin(); slot != s_slots.rend(); ++slot)
        Remove(*slot);
}

// State of the DeferredSignal, for the handler.
volatile sig_atomic_t s_deferring = 0;
volatile sig_atomic_t s_deferred = 0;  // the signal; 0 for none
long long s_deferredAt = 0;            // used by the handler only

long long NowMs() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

// Returns false if the signal must end the process now.
bool Defer(int signal) {
    if (s_deferring == 0 || signal == SIGQUIT || signal == SIGPIPE) return false;
    if (s_deferred != 0) return NowMs() - s_deferredAt < kSameSignalMs;
    s_deferred = signal;
    s_deferredAt = NowMs();
    return true;
}

// Keeps errno for the interrupted code, which goes on after a deferred signal.
void OnSignal(int signal) {
    const int error = errno;
    if (!Defer(signal)) TerminateBy(signal);
    errno = error;
}

}  // namespace

TemporaryPath::TemporaryPath(Kind kind, const std::string& path) : m_slot(Fill(kind, path)) {}

TemporaryPath::~TemporaryPath() {
    const int error = errno;
    Remove(s_slots[m_slot]);
    Keep();
    s_usedSlots = m_slot;
    errno = error;
}

void TemporaryPath::Keep() const {
    s_slots[m_slot].kind = NOTHING;
}

void HandleSignals() {
    struct sigaction action = {};
    action.sa_handler = OnSignal;
    action.sa_flags = SA_RESTART;
    sigfillset(&action.sa_mask);
    for (const int signal : kSignals) {
        struct sigaction before = {};
        sigaction(signal, nullptr, &before);
        if (before.sa_handler != SIG_IGN) sigaction(signal, &action, nullptr);
    }
}

void TerminateBy(int signal) {
    RemoveTemporaryPaths();
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    sigaction(signal, &standard, nullptr);
    raise(signal);
}

SignalBlock::SignalBlock() {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : kSignals)
        sigaddset(&blocked, signal);
    pthread_sigmask(SIG_BLOCK, &blocked, &m_before);
}

SignalBlock::~SignalBlock() {
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}

DeferredSignal::DeferredSignal() {
    s_deferred = 0;
    s_deferring = 1;
}

DeferredSignal::~DeferredSignal() {
    s_deferring = 0;
    if (s_deferred != 0 && !m_taken) TerminateBy(s_deferred);
}

int DeferredSignal::Take() {
    m_taken = s_deferred != 0;
    return s_deferred;
}

}  // namespace ky_tferctl
