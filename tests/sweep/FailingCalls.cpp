#include "sweep/FailingCalls.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <jansson.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>

namespace {

using failing::Kind;

constexpr int kMostPerPlace = 2;  // one, where memory stays away
constexpr size_t kMostPlaces = 1 << 14;

struct Place {
    std::uint64_t stack = 0;  // 0 for a free entry
    int failed = 0;           // the calls that have had their fault, in runs before
    int seen = 0;             // in run `run`
    int run = 0;
};

thread_local bool t_subject = true;
std::atomic<long> s_live{0};
std::atomic<bool> s_armed{false};
std::atomic<bool> s_failed{false};

// All of it guarded by the mutex, and nothing of it allocated.
std::mutex s_mutex;
Kind s_kind = failing::KINDS;
pthread_t s_thisThread;
failing::Who s_who = failing::ALL;
int s_run = 0;
Place s_places[kMostPlaces];
void* s_faultStack[48];
int s_faultDepth = 0;

Place& PlaceOf(void* const* stack, int depth) {
    std::uint64_t hash = 14695981039346656037U;
    for (int i = 0; i < depth; ++i)
        hash = (hash ^ reinterpret_cast<std::uintptr_t>(stack[i])) * 1099511628211U;
    size_t at = hash % kMostPlaces;
    while (s_places[at].stack != 0 && s_places[at].stack != hash)
        at = (at + 1) % kMostPlaces;
    s_places[at].stack = hash;
    return s_places[at];
}

bool IsDue() {
    void* stack[48];
    const int depth = backtrace(stack, 48);
    Place& place = PlaceOf(stack, depth);
    if (place.run != s_run) place.seen = 0;
    place.run = s_run;
    if (++place.seen <= place.failed ||
        place.failed == (s_kind == failing::MEMORY_FROM_ON ? 1 : kMostPerPlace))
        return false;
    ++place.failed;
    s_faultDepth = depth;
    std::copy(stack, stack + depth, s_faultStack);
    s_failed = true;
    return true;
}

bool FailsWith(Kind kind, int error) {
    if (!failing::Take(kind)) return false;
    errno = error;
    return true;
}

/// The function that a call would reach without this file.
template <typename Function>
Function* Real(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/// What an allocation has given, counted.
void* Counted(void* block) {
    if (block != nullptr) ++s_live;
    return block;
}

}  // namespace

failing::Scope::Scope(bool subject) : m_before(t_subject) {
    t_subject = subject;
}
failing::Scope::~Scope() {
    t_subject = m_before;
}

void failing::ForgetPlaces() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    std::fill(std::begin(s_places), std::end(s_places), Place());
}

void failing::Begin(Kind kind, Who who) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    s_kind = kind;
    s_who = who;
    s_thisThread = pthread_self();
    ++s_run;
    s_failed = false;
    s_armed = true;
}

void failing::End() {
    s_armed = false;
}
void failing::EndShortage() {
    const std::lock_guard<std::mutex> lock(s_mutex);
    if (s_kind == MEMORY_FROM_ON && s_failed) s_armed = false;
}
bool failing::HasFailed() {
    return s_failed;
}
void failing::PrintPlace() {
    backtrace_symbols_fd(s_faultStack, s_faultDepth, STDERR_FILENO);
}
long failing::LiveAllocations() {
    return s_live;
}

bool failing::Take(Kind kind) {
    if (!s_armed || !t_subject) return false;
    const Scope unharmed(false);
    const std::lock_guard<std::mutex> lock(s_mutex);
    const bool lasting = s_kind == MEMORY_FROM_ON;
    if (kind != (lasting ? MEMORY : s_kind)) return false;
    if (s_who == THIS_THREAD && pthread_equal(s_thisThread, pthread_self()) == 0) return false;
    return s_failed ? lasting : IsDue();
}

extern "C" {

void* __real_malloc(size_t size);
void* __real_realloc(void* block, size_t size);
void __real_free(void* block);

void* __wrap_malloc(size_t size) {
    return FailsWith(failing::MEMORY, ENOMEM) ? nullptr : Counted(__real_malloc(size));
}

void* __wrap_realloc(void* block, size_t size) {
    if (FailsWith(failing::MEMORY, ENOMEM)) return nullptr;
    return block == nullptr ? Counted(__real_malloc(size)) : __real_realloc(block, size);
}

void __wrap_free(void* block) {
    if (block != nullptr) --s_live;
    __real_free(block);
}

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the C library's are reserved ones
// NOLINTBEGIN(bugprone-macro-parentheses): parts of a definition cannot have any

// The sanitizers know a thread only if it was made through theirs.
int __interceptor_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)
    __attribute__((weak));

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) {
    if (failing::Take(failing::THREAD)) return EAGAIN;
    static const auto s_real = __interceptor_pthread_create != nullptr
                                   ? __interceptor_pthread_create
                                   : Real(&pthread_create, "pthread_create");
    return s_real(thread, attributes, start, argument);
}

/// Defines a function that fails with `error` and else does what it does.
#define SWEEP_CALL(result, failure, name, kind, error, parameters, arguments) \
    result name parameters {                                                  \
        if (FailsWith(failing::kind, error)) return failure;                  \
        static const auto s_real = Real(&name, #name);                        \
        return s_real arguments;                                              \
    }

#define SWEEP_MODE(flags)                                                  \
    va_list rest;                                                          \
    va_start(rest, flags);                                                 \
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0; \
    va_end(rest)

int open(const char* path, int flags, ...) {
    SWEEP_MODE(flags);
    if (FailsWith(failing::OPEN, EMFILE)) return -1;
    static const auto s_real = Real(&open, "open");
    return s_real(path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...) {
    SWEEP_MODE(flags);
    if (FailsWith(failing::OPEN, EMFILE)) return -1;
    static const auto s_real = Real(&openat, "openat");
    return s_real(directory, path, flags, mode);
}

SWEEP_CALL(FILE*, nullptr, fopen, OPEN, EMFILE, (const char* path, const char* mode), (path, mode))
SWEEP_CALL(FILE*, nullptr, fopen64, OPEN, EMFILE, (const char* path, const char* mode), (path, mode))
SWEEP_CALL(ssize_t, -1, read, READ, EIO, (int fd, void* bytes, size_t count), (fd, bytes, count))
SWEEP_CALL(ssize_t, -1, write, WRITE, ENOSPC, (int fd, const void* bytes, size_t count), (fd, bytes, count))
SWEEP_CALL(int, -1, stat, STAT, EIO, (const char* path, struct stat* found) noexcept, (path, found))
SWEEP_CALL(int, -1, lstat, STAT, EIO, (const char* path, struct stat* found) noexcept, (path, found))
SWEEP_CALL(int, -1, fstat, STAT, EIO, (int fd, struct stat* found) noexcept, (fd, found))
SWEEP_CALL(int, -1, fstatat, STAT, EIO, (int fd, const char* path, struct stat* found, int flags) noexcept,
           (fd, path, found, flags))
SWEEP_CALL(int, -1, rename, RENAME, EXDEV, (const char* from, const char* to) noexcept, (from, to))
SWEEP_CALL(int, -1, unlink, UNLINK, EACCES, (const char* path) noexcept, (path))
SWEEP_CALL(int, -1, unlinkat, UNLINK, EACCES, (int fd, const char* path, int flags) noexcept,
           (fd, path, flags))
SWEEP_CALL(int, -1, mkfifoat, MKFIFO, ENOSPC, (int fd, const char* path, mode_t mode) noexcept,
           (fd, path, mode))

// NOLINTEND(bugprone-macro-parentheses)
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
}

// The forms for arrays use these.
void* operator new(size_t size) {
    void* const block = __wrap_malloc(size == 0 ? 1 : size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return __wrap_malloc(size == 0 ? 1 : size);
}
void operator delete(void* block) noexcept {
    __wrap_free(block);
}
void operator delete(void* block, size_t) noexcept {
    __wrap_free(block);
}

namespace {

[[maybe_unused]] const bool s_prepared = [] {
    json_set_alloc_funcs(__wrap_malloc, __wrap_free);
    void* frame = nullptr;
    backtrace(&frame, 1);  // the first one allocates
    return true;
}();

}  // namespace
