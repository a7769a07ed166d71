#ifndef ENGINE_GATE_H
#define ENGINE_GATE_H

#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "host/KyHostLog.h"
#include "support/Eventually.h"

/// Holds the thread that comes to it until the test lets it go.
class Gate {
public:
    void Wait() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_arrived = true;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_open; });
    }
    bool WaitForArrival() {
        return WaitUntil([this] {
            std::lock_guard<std::mutex> lock(m_mutex);
            return m_arrived;
        });
    }
    ~Gate() { Open(); }
    void Open() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_arrived = false;
    bool m_open = false;
};

/// Gates in the log: each stops whoever logs a line that begins with its text, until it is opened. Notes the
/// lines of level 3. Takes the place of other captures until Leave.
class LogGates {
public:
    explicit LogGates(const std::vector<std::string>& beginnings) {
        for (const std::string& text : beginnings)
            m_gates.emplace_back(text);
        ky_host::SetLogSink(&LogGates::Take, this);
    }
    ~LogGates() { Leave(); }
    LogGates(const LogGates&) = delete;
    LogGates& operator=(const LogGates&) = delete;

    Gate& operator[](size_t index) { return m_gates[index].gate; }

    /// Opens all and ends the log. @return the lines of level 3
    std::vector<std::string> Leave() {
        for (LogGate& gate : m_gates)
            gate.gate.Open();
        ky_host::SetLogLevel(-1);
        ky_host::SetLogSink(nullptr, nullptr);
        return m_errors;
    }

private:
    struct LogGate {
        explicit LogGate(const std::string& text) : beginning(text) {}
        const std::string beginning;
        Gate gate;
    };

    static void Take(void* context, int level, const char*, const char*, const char* text) {
        auto* gates = static_cast<LogGates*>(context);
        for (LogGate& gate : gates->m_gates) {
            if (strncmp(text, gate.beginning.c_str(), gate.beginning.size()) == 0) gate.gate.Wait();
        }
        if (level != 3) return;
        std::lock_guard<std::mutex> lock(gates->m_mutex);
        gates->m_errors.emplace_back(text);
    }

    std::deque<LogGate> m_gates;
    std::mutex m_mutex;
    std::vector<std::string> m_errors;
};

#endif
