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

/// A broken promise of the code under test: the fuzzer reports the input.
inline void Require(bool holds, const std::string& promise) {
    if (holds) return;
    std::fprintf(stderr, "broken: %s\n", promise.c_str());
    std::abort();
}

/// Takes decisions and texts from the front of the fuzzer's input, so that seeds can be written by hand.
/// At the end there are only zeros and empty texts.
class Input {
public:
    Input(const uint8_t* bytes, size_t size) : m_next(bytes), m_end(bytes + size) {}

    bool Empty() const { return m_next == m_end; }
    unsigned Byte() { return Empty() ? 0U : *m_next++; }

    /// A number of all sizes: small ones, and those around the powers of two.
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

/// Log lines are formatted, for the sake of their arguments, and dropped.
inline void SilenceLog(int maxLevel = INT_MAX) {
    ky_host::SetLogSink([](void*, int, const char*, const char*, const char*) {}, nullptr, maxLevel);
}

/// Ends a fuzzer that would write into the machine's own directories.
inline void RequireSandbox() {
    if (std::getenv("KY_SANDBOX") != nullptr) return;
    std::fputs("This fuzzer needs a sandbox: tests/sandbox.sh\n", stderr);
    std::exit(1);
}

/// Waits in real time until `predicate` holds; false when it still does not after `deadline`.
template <typename Predicate>
bool WaitUntil(Predicate predicate, std::chrono::seconds deadline = std::chrono::seconds(8)) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    return true;
}

/// The threads and open descriptors of this process at its construction, more of which must not be left.
class LeakCheck {
public:
    LeakCheck() {
        [[maybe_unused]] static const bool s_bare = WithoutSanitizersThread();
        m_threads = Count("/proc/self/task");
        m_descriptors = Count("/proc/self/fd");
    }

    /// The kernel counts a joined thread for a moment longer.
    void Check() const {
        Require(WaitUntil([this] { return Count("/proc/self/task") <= m_threads; }), "no thread is left");
        Require(Count("/proc/self/fd") <= m_descriptors, "no descriptor is left");
    }

private:
    /// A sanitizer's own thread comes with the first one that is made, which has to be gone before we count.
    static bool WithoutSanitizersThread() {
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
