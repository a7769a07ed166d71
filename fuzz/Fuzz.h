#ifndef FUZZ_FUZZ_H
#define FUZZ_FUZZ_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>

#include "host/KyHostLog.h"
#include "platform/KyIpcMsgBuffer.h"

/// What the fuzzers share.
namespace fuzz {

/// Aborts unless `holds`: the fuzzer then reports the input.
inline void Require(bool holds, const std::string& promise) {
    if (holds) return;
    std::fprintf(stderr, "broken: %s\n", promise.c_str());
    std::abort();
}

/// Takes decisions and texts from the front of the fuzzer's input, so that seeds can be written by hand.
/// Behind the end, bytes are 0 and texts are empty.
class Input {
public:
    Input(const uint8_t* bytes, size_t size) : m_next(bytes), m_end(bytes + size) {}

    bool Empty() const { return m_next == m_end; }
    unsigned Byte() { return Empty() ? 0U : *m_next++; }

    /// A small number, or one next to a power of two.
    unsigned Number() {
        const unsigned form = Byte();
        return form < 0xC0 ? form : (1U << (form & 31)) + Byte() - 1;
    }

    std::string Text(size_t length) {
        const auto* const from = m_next;
        m_next += std::min(length, static_cast<size_t>(m_end - m_next));
        return {from, m_next};
    }
    std::string Rest() { return Text(static_cast<size_t>(m_end - m_next)); }

private:
    const uint8_t* m_next;
    const uint8_t* m_end;
};

inline std::string BytesOf(const KyIpcMsgBuffer& buffer) {
    return {reinterpret_cast<const char*>(buffer.GetBuf()), static_cast<size_t>(buffer.GetLength())};
}

/// Drops the log. Lines up to `maxLevel` are still formatted, so sanitizers check their arguments.
inline void SilenceLog(int maxLevel = INT_MAX) {
    ky_host::SetLogSink([](void*, int, const char*, const char*, const char*) {}, nullptr, maxLevel);
}

/// Exits outside of the sandbox, where the fuzzer would write into the machine's directories.
inline void RequireSandbox() {
    if (std::getenv("KY_SANDBOX") != nullptr) return;
    std::fputs("This fuzzer needs a sandbox: tests/sandbox.sh\n", stderr);
    std::exit(1);
}

/// Waits in real time until `predicate` holds. @return false if it does not hold within `deadline`
template <typename Predicate>
bool WaitUntil(Predicate predicate, std::chrono::seconds deadline = std::chrono::seconds(8)) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    return true;
}

/// Finds threads and open descriptors that were not there at its construction.
class LeakCheck {
public:
    LeakCheck() {
        [[maybe_unused]] static const bool s_started = WithSanitizersThread();
        m_threads = Count("/proc/self/task");
        m_descriptors = Count("/proc/self/fd");
    }

    /// Waits for threads: the kernel counts a joined thread for a moment longer.
    void Check() const {
        Require(WaitUntil([this] { return Count("/proc/self/task") <= m_threads; }), "no thread is leaked");
        Require(Count("/proc/self/fd") <= m_descriptors, "no descriptor is leaked");
    }

private:
    /// Starts and ends a thread: with the first one, a sanitizer starts its own, which must be counted.
    static bool WithSanitizersThread() {
        std::thread([] {}).join();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return true;
    }

    static long Count(const char* directory) {
        return std::distance(std::filesystem::directory_iterator(directory),
                             std::filesystem::directory_iterator());
    }

    long m_threads;
    long m_descriptors;
};

}  // namespace fuzz

#endif
