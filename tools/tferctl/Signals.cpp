#include "tferctl/Signals.h"

#include <time.h>

#include <array>

#include "tferctl/Leftover.h"

namespace ky_tferctl {
namespace {

constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE};
constexpr long long kSameSignalMs = 250;

// Of the DeferredInterruption, for the handler.
volatile sig_atomic_t s_deferring = 0;
volatile sig_atomic_t s_deferred = 0;  // the signal that waits; 0 for none
long long s_deferredAt = 0;            // the handler's alone

long long NowMs() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

// False if the signal is to end the process now.
bool Defer(int signal) {
    if (s_deferring == 0 || signal == SIGQUIT || signal == SIGPIPE) return false;
    if (s_deferred != 0) return NowMs() - s_deferredAt < kSameSignalMs;
    s_deferred = signal;
    s_deferredAt = NowMs();
    return true;
}

void OnSignal(int signal) {
    if (!Defer(signal)) DieOf(signal);
}

}  // namespace

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

void DieOf(int signal) {
    RemoveLeftovers();
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    sigaction(signal, &standard, nullptr);
    raise(signal);
}

SignalsHeld::SignalsHeld() {
    sigset_t held;
    sigemptyset(&held);
    for (const int signal : kSignals)
        sigaddset(&held, signal);
    pthread_sigmask(SIG_BLOCK, &held, &m_before);
}

SignalsHeld::~SignalsHeld() {
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}

DeferredInterruption::DeferredInterruption() {
    s_deferred = 0;
    s_deferring = 1;
}

DeferredInterruption::~DeferredInterruption() {
    s_deferring = 0;
    if (s_deferred != 0 && !m_taken) DieOf(s_deferred);
}

int DeferredInterruption::Take() {
    m_taken = s_deferred != 0;
    return s_deferred;
}

}  // namespace ky_tferctl
