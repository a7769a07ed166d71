#ifndef ENGINE_LOGGATES_H
#define ENGINE_LOGGATES_H

#include <pthread.h>

#include <condition_variable>
#include <initializer_list>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "host/KyHostLog.h"
#include "support/Eventually.h"

/// Gates in the log: each stops whoever logs a line that begins with its text, until it is opened. Notes the
/// lines of level 3. Takes the place of other captures until Leave.
class LogGates {
public:
    LogGates(std::initializer_list<std::string> beginnings) {
        for (const std::string& beginning : beginnings)
            m_gates[beginning];
        ky_host::SetLogSink(&LogGates::Take, this);
    }
    ~LogGates() { Leave(); }
    LogGates(const LogGates&) = delete;
    LogGates& operator=(const LogGates&) = delete;

    /// Waits until a thread has come to the gate. @return its name; empty when none comes
    std::string Arrival(const std::string& beginning) {
        std::unique_lock<std::mutex> lock(m_mutex);
        Gate& gate = m_gates.at(beginning);
        m_changed.wait_for(lock, std::chrono::seconds(10), [&gate] { return !gate.visitor.empty(); });
        return gate.visitor;
    }
    void Open(const std::string& beginning) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_gates.at(beginning).open = true;
        m_changed.notify_all();
    }
    /// Opens all and ends the log. @return the lines of level 3
    std::vector<std::string> Leave() {
        for (const auto& gate : m_gates)
            Open(gate.first);
        ky_host::SetLogLevel(-1);
        ky_host::SetLogSink(nullptr, nullptr);
        return m_errors;
    }

private:
    struct Gate {
        std::string visitor;
        bool open = false;
    };

    static void Take(void* context, int level, const char*, const char*, const char* text) {
        auto* const self = static_cast<LogGates*>(context);
        std::unique_lock<std::mutex> lock(self->m_mutex);
        if (level == 3) self->m_errors.emplace_back(text);
        for (auto& [beginning, gate] : self->m_gates) {
            if (std::string(text).compare(0, beginning.size(), beginning) != 0) continue;
            char name[16] = {};
            pthread_getname_np(pthread_self(), name, sizeof name);
            gate.visitor = name;
            self->m_changed.notify_all();
            self->m_changed.wait(lock, [&open = gate.open] { return open; });
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<std::string, Gate> m_gates;
    std::vector<std::string> m_errors;
};

#endif
