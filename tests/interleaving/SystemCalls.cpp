// Replacements of system and platform functions. Outside of a run, the real functions are called.
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "interleaving/World.h"
#include "platform/KyDlog.h"
#include "platform/KyNetUtils.h"
#include "platform/tal_fileutils.h"

/// REPLACES(function, parameters, arguments, its result within a run)
#define REPLACES(function, parameters, arguments, result)                                             \
    extern "C" int __real_##function parameters;                                                      \
    extern "C" int __wrap_##function parameters {                                                     \
        return Scheduler::Running() == nullptr ? __real_##function arguments : (Outside(), (result)); \
    }

namespace {

constexpr auto kQuiet = Scheduler::QUIET;

Scheduler& Run() {
    return *Scheduler::Running();
}

int Start(pthread_t* thread, void* (*start)(void*), void* argument) {
    Run().Point("create");
    Fiber* const fiber = Run().StartThread([=] { Inside(), start(argument); });
    *thread = reinterpret_cast<pthread_t>(fiber);
    Run().Point("created");
    return fiber == nullptr ? EAGAIN : 0;
}

int Join(pthread_t thread) {
    Fiber* fiber = nullptr;
    std::memcpy(&fiber, &thread, sizeof thread);
    while (!fiber->ended)
        Run().Wait(fiber);
    if (std::exchange(fiber->joined, true)) Run().Fail("a thread is joined twice");
    return 0;
}

int WaitUnlocked(const void* condition, const void* mutex, const timespec* until) {
    Run().Unlock(mutex);
    const bool woken =
        Run().Wait(condition, until == nullptr ? kNever : until->tv_sec * kSecond + until->tv_nsec / 1000);
    Run().Lock(mutex);
    return woken ? 0 : ETIMEDOUT;
}

int Result(int error) {
    errno = error;
    return error == 0 ? 0 : -1;
}

}  // namespace

using Thread = pthread_t;
using Mutex = pthread_mutex_t;
using Condition = pthread_cond_t;

REPLACES(pthread_create,
         (Thread * thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument),
         (thread, attributes, start, argument), Start(thread, start, argument))
REPLACES(pthread_join, (Thread thread, void** result), (thread, result), Join(thread))
REPLACES(pthread_mutex_lock, (Mutex * mutex), (mutex), (Run().Point("lock", kQuiet), Run().Lock(mutex), 0))
REPLACES(pthread_mutex_trylock, (Mutex * mutex), (mutex),
         (Run().Point("try", kQuiet), Run().TryLock(mutex) ? 0 : EBUSY))
REPLACES(pthread_mutex_unlock, (Mutex * mutex), (mutex),
         (Run().Unlock(mutex), Run().Point("unlocked", kQuiet), 0))
REPLACES(pthread_cond_wait, (Condition * condition, Mutex* mutex), (condition, mutex),
         WaitUnlocked(condition, mutex, nullptr))
REPLACES(pthread_cond_timedwait, (Condition * condition, Mutex* mutex, const timespec* until),
         (condition, mutex, until), WaitUnlocked(condition, mutex, until))
REPLACES(pthread_cond_broadcast, (Condition * condition), (condition), (Run().Wake(condition), 0))
REPLACES(sched_yield, (), (), (Run().Look("yield", 100 * kMillisecond), 0))
REPLACES(usleep, (useconds_t length), (length), (Run().Sleep(length, kQuiet), 0))
REPLACES(clock_gettime, (clockid_t clock, timespec* time), (clock, time),
         (Run().Look("clock", 5 * kSecond), *time = {Run().Now() / kSecond, Run().Now() % kSecond * 1000}, 0))
REPLACES(stat, (const char* path, struct stat* info), (path, info),
         (Run().Point("stat", kQuiet), Result(World::Current().Measure(path, *info))))
REPLACES(rename, (const char* from, const char* to), (from, to),
         (Run().Point("rename"), Result(World::Current().Move(from, to))))
REPLACES(unlink, (const char* path), (path), (Run().Point("unlink"), Result(World::Current().Remove(path))))
// Only names threads.
REPLACES(prctl, (int option, const char* name), (option, name),
         (Run().Current().name += std::string(" ") + name, 0))

extern "C" void __dlog_printfex(int, const char*, const char*, const char* format, ...) {
    const Outside outside;
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    Run().Point("log", Scheduler::WORK, text);
}

std::string tal_netutils::KyNetUtils::GetMAC() {
    const Outside outside;
    return "02:00:00:00:00:03";
}

bool tal_fileutils::MakeDirPath(const std::string&, unsigned int, bool) {
    return true;
}

// The forms for arrays use these. Inlined, g++ takes malloc() and delete for a pair that does not match.
[[gnu::noinline]] void* operator new(std::size_t size) {
    const bool fails = g_inEngine && World::Current().AllocationFails();
    void* const block = fails ? nullptr : std::malloc(size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
    std::free(block);
}
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}
