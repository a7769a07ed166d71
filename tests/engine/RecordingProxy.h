#ifndef ENGINE_RECORDINGPROXY_H
#define ENGINE_RECORDINGPROXY_H

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "simdevice/RelayProxy.h"

/// Passes the card's calls on to a device, and records them: "8597" for a read, "6459/1" for a text of module 1,
/// "8604=0" for a write, "get NAME" and "put DIRECTORY NAME NEW-NAME" for files, "abort" for an abort.
class RecordingProxy : public RelayProxy {
public:
    using Hook = std::function<int(const std::string& call)>;

    explicit RecordingProxy(KyPldProxy& device) : RelayProxy(device) {}

    /// Sets a function that runs before each call. If the result is not 0, the call returns it and is not passed on. The
    /// function may throw.
    void OnCall(Hook hook) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_hook = std::move(hook);
    }

    /// Makes all calls with this text fail. A "*" at the end matches any rest.
    void Fail(const std::string& text, int status) {
        const size_t star = text.find('*');
        OnCall([=](const std::string& call) {
            return call.substr(0, star) == text.substr(0, star) ? status : 0;
        });
    }

    std::vector<std::string> Calls() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }

    void Clear() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_calls.clear();
    }

    void AbortTransfer(unsigned short device) override {
        Record("abort");
        RelayProxy::AbortTransfer(device);
    }

private:
    int Before(const ProxyCall& call) override {
        const std::string text = TextOf(call);
        return text.empty() ? 0 : Record(text);
    }

    int Record(const std::string& text) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_calls.push_back(text);
        const Hook hook = m_hook;
        lock.unlock();
        return hook ? hook(text) : 0;
    }

    /// Empty for a call that is not recorded. A wrong module or time-out is part of the text.
    static std::string TextOf(const ProxyCall& call) {
        std::string point = std::to_string(call.pointId);
        const bool number = call.operation == ProxyOperation::SET_UINT32;
        const bool usual = call.mmIdx == 2 && call.timeout == (number ? 5000 : 1000);
        switch (call.operation) {
            case ProxyOperation::GET_STRING:
                return point + "/" + std::to_string(call.mmIdx);
            case ProxyOperation::GET_UINT32:
                return point;
            case ProxyOperation::SET_STRING:
            case ProxyOperation::SET_UINT32:
                return point + "=" + call.value + (usual ? "" : ", wrong module or time-out");
            case ProxyOperation::GET_FILE:
                return "get " + call.value;
            case ProxyOperation::PUT_FILE:
                return "put " + call.value;
            default:
                return "";
        }
    }

    mutable std::mutex m_mutex;
    Hook m_hook;
    std::vector<std::string> m_calls;
};

#endif
