#include "interleaving/Scheduler.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

// The address sanitizer keeps track of stacks.
extern "C" void __sanitizer_start_switch_fiber(void** save, const void* bottom, size_t size)
    __attribute__((weak));
extern "C" void __sanitizer_finish_switch_fiber(void* saved, const void** bottom, size_t* size)
    __attribute__((weak));

namespace {

constexpr std::size_t kStackSize = 262144;
constexpr Time kStart = 1710491400 * kSecond;
constexpr int kLooksOfAPoll = 3;
constexpr unsigned long kMostPoints = 200000;
constexpr unsigned kDisturbedPoints = 600;  // the first so many

}  // namespace

Scheduler* Scheduler::s_running = nullptr;

Scheduler::Scheduler(unsigned long long seed, bool trace, Listener& listener)
    : m_random(seed * 0x9E3779B97F4A7C15U + 1),
      m_trace(trace),
      m_listener(listener),
      m_byPriority(Random(2) == 0),
      m_disturbed(Random(4)),
      m_now(kStart) {
    for (unsigned long& point : m_disturbed)
        point = Random(kDisturbedPoints);
}

// xorshift64*
unsigned Scheduler::Random(unsigned below) {
    m_random ^= m_random >> 12;
    m_random ^= m_random << 25;
    m_random ^= m_random >> 27;
    return unsigned((m_random * 0x2545F4914F6CDD1DU) >> 33) % below;
}

Fiber& Scheduler::Spawn(const std::string& name, std::function<void()> body) {
    m_fibers.push_back(std::make_unique<Fiber>());
    Fiber& fiber = *m_fibers.back();
    fiber.name = name;
    fiber.body = std::move(body);
    fiber.joined = true;
    fiber.priority = int(Random(1000)) + 1;
    fiber.stack.reset(new char[kStackSize]);
    getcontext(&fiber.context);
    fiber.context.uc_stack.ss_sp = fiber.stack.get();
    fiber.context.uc_stack.ss_size = kStackSize;
    makecontext(&fiber.context, Enter, 0);
    return fiber;
}

Fiber* Scheduler::StartThread(std::function<void()> body) {
    Fiber& fiber = Spawn("thread " + std::to_string(m_fibers.size()), std::move(body));
    fiber.joined = false;
    if (m_listener.ThreadStarts(*m_current, fiber)) return &fiber;
    m_fibers.pop_back();
    return nullptr;
}

std::string Scheduler::Run() {
    s_running = this;
    SwitchTo(Choose());
    s_running = nullptr;
    return m_failure;
}

void Scheduler::Fail(const std::string& text) {
    Trace("FAILURE", text);
    m_failure = text;
    SwitchTo(m_main);
    std::abort();  // nothing switches back
}

void Scheduler::Trace(const char* what, const std::string& detail) {
    if (!m_trace) return;
    const Time passed = m_now - kStart;
    std::printf("%4lld.%06lld  %-26s %-8s %s\n", passed / kSecond, passed % kSecond, m_current->name.c_str(),
                what, detail.c_str());
}

void Scheduler::Point(const char* what, Effect effect, const std::string& detail) {
    if (m_listening) return;
    Trace(what, detail);
    if (effect == WORK) ++m_work;
    if (++m_points == kMostPoints) Fail("the run comes to no end:" + Unfinished());
    if (std::find(m_disturbed.begin(), m_disturbed.end(), m_points) != m_disturbed.end()) FallBehind();
    SwitchTo(Choose());
}

void Scheduler::FallBehind() {
    m_current->priority = --m_lowest;
    const Time length = Pick({0, 0, 0, kMillisecond, kSecond, 100 * kSecond, 200 * kSecond});
    m_heldUp += length;
    Trace("falls behind", std::to_string(length / kMillisecond) + " ms");
    if (length > 0) Wait(this, m_now + length);
}

void Scheduler::Look(const char* what, Time pause) {
    if (m_listening) return;
    const bool again = m_current->workSeen == m_work && m_current->pause == pause;
    m_current->looks = again ? m_current->looks + 1 : 0;
    m_current->pause = pause;
    m_current->workSeen = m_work;
    m_yields = m_current->looks > 1;
    if (m_yields) m_current->priority = --m_lowest;
    Point(what, QUIET);
}

bool Scheduler::Wait(const void* object, Time until) {
    if (m_listening) Fail("a copy of the record has to be waited for");
    m_current->waitingFor = object;
    m_current->wake = until;
    SwitchTo(Choose());
    return std::exchange(m_current->waitingFor, nullptr) == nullptr;
}

void Scheduler::Wake(const void* object, bool all) {
    const std::size_t first = Random(unsigned(m_fibers.size()));
    for (std::size_t i = 0; i < m_fibers.size(); ++i) {
        Fiber& fiber = *m_fibers[(first + i) % m_fibers.size()];
        if (fiber.waitingFor != object) continue;
        fiber.waitingFor = nullptr;
        fiber.wake = m_now;
        if (!all) return;
    }
}

void Scheduler::Sleep(Time length, Effect effect) {
    if (effect == WORK) ++m_work;
    Wait(m_current, m_now + length);
}

bool Scheduler::TryLock(const void* mutex) {
    if (m_listening) m_watched = mutex;
    for (const auto& locked : m_locked) {
        if (locked.first != mutex) continue;
        if (locked.second == m_current) Fail("a mutex is locked twice");
        return false;
    }
    m_locked.emplace_back(mutex, m_current);
    return true;
}

void Scheduler::Lock(const void* mutex) {
    while (!TryLock(mutex))
        Wait(mutex);
}

void Scheduler::Unlock(const void* mutex) {
    const auto locked = std::find(m_locked.begin(), m_locked.end(), std::make_pair(mutex, m_current));
    if (locked == m_locked.end()) Fail("a mutex is unlocked that is not held");
    m_locked.erase(locked);
    Wake(mutex);
    if (m_listening || (m_watched == nullptr ? !m_locked.empty() : m_watched != mutex)) return;
    m_listening = true;
    m_listener.Unlocked();
    m_listening = false;
}

bool Scheduler::Polls(const Fiber& fiber) const {
    if (fiber.wake == kNever || fiber.workSeen != m_work || fiber.looks < kLooksOfAPoll) return false;
    return std::none_of(m_locked.begin(), m_locked.end(),
                        [&](const auto& lock) { return lock.second == &fiber; });
}

Fiber& Scheduler::Choose() {
    for (bool works = false; !works;) {
        m_ready.clear();
        Time next = kNever;
        for (const auto& fiber : m_fibers) {
            if (fiber->ended) continue;
            if (fiber->wake <= m_now) m_ready.push_back(fiber.get());
            next = std::min(next, Polls(*fiber) ? m_now + fiber->pause : fiber->wake);
        }
        works = next <= m_now;
        if (next == kNever && !Unfinished().empty()) m_failure = "deadlock:" + Unfinished();
        if (next == kNever) return m_main;
        for (const auto& fiber : m_fibers)
            if (!works && Polls(*fiber)) fiber->looks = 0;
        m_now = std::max(m_now, next);
    }
    if (std::exchange(m_yields, false) && m_ready.size() > 1)
        m_ready.erase(std::remove(m_ready.begin(), m_ready.end(), m_current), m_ready.end());
    if (!m_byPriority) return *m_ready[Random(unsigned(m_ready.size()))];
    const auto lower = [](const Fiber* a, const Fiber* b) { return a->priority < b->priority; };
    return **std::max_element(m_ready.begin(), m_ready.end(), lower);
}

std::string Scheduler::Unfinished() const {
    std::string names;
    for (const auto& fiber : m_fibers)
        if (!fiber->ended) names += " " + fiber->name + ";";
    return names;
}

void Scheduler::SwitchTo(Fiber& next) {
    if (&next == m_current) return;
    Fiber& last = *std::exchange(m_current, &next);
    // What is being thrown and caught belongs to the thread.
    std::memcpy(last.exceptions, abi::__cxa_get_globals(), sizeof last.exceptions);
    std::memcpy(abi::__cxa_get_globals(), next.exceptions, sizeof next.exceptions);
    if (__sanitizer_start_switch_fiber != nullptr) {
        const bool toMain = &next == &m_main;
        __sanitizer_start_switch_fiber(last.ended ? nullptr : &last.sanitizerStack,
                                       toMain ? m_mainStack : next.stack.get(),
                                       toMain ? m_mainStackSize : kStackSize);
    }
    swapcontext(&last.context, &next.context);
    if (__sanitizer_finish_switch_fiber != nullptr)
        __sanitizer_finish_switch_fiber(last.sanitizerStack, nullptr, nullptr);
}

// A fiber's first function. It does not return. The first fiber comes from the main stack.
void Scheduler::Enter() {
    Scheduler& run = *s_running;
    if (__sanitizer_finish_switch_fiber != nullptr) {
        const bool first = run.m_mainStack == nullptr;
        __sanitizer_finish_switch_fiber(nullptr, first ? &run.m_mainStack : nullptr,
                                        first ? &run.m_mainStackSize : nullptr);
    }
    try {
        run.m_current->body();
    } catch (const std::exception& exception) {
        run.Fail(std::string("an exception leaves a thread: ") + exception.what());
    }
    run.m_current->body = nullptr;
    if (!run.m_current->joined) run.m_listener.ThreadEnds(*run.m_current);
    run.Trace("ends", "");
    run.m_current->ended = true;
    ++run.m_work;
    run.Wake(run.m_current);
    run.SwitchTo(run.Choose());
}
