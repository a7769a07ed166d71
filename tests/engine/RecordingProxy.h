#ifndef ENGINE_RECORDINGPROXY_H
#define ENGINE_RECORDINGPROXY_H

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/KyPldProxy.h"

/// Passes the card's calls on to a device, and records them: "8597" for a read, "6459/1" for a text of module 1,
/// "8604=0" for a write, "get NAME" and "put DIRECTORY NAME NEW-NAME" for files, "abort" for an abort.
class RecordingProxy : public KyPldProxy {
    using u16 = unsigned short;
    static constexpr u16 kModule = 2;

public:
    using Hook = std::function<int(const std::string& call)>;

    explicit RecordingProxy(KyPldProxy& device) : m_device(device) {}

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

private:
    template <typename Pass>
    int Call(const std::string& text, Pass pass) {
        Hook hook;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_calls.push_back(text);
            hook = m_hook;
        }
        const int status = hook ? hook(text) : 0;
        return status != 0 ? status : pass();
    }

    /// A wrong module or time-out is part of the text.
    static std::string Write(u16 point, const std::string& value, bool usual) {
        return std::to_string(point) + "=" + value + (usual ? "" : ", wrong module or time-out");
    }

    int GetMaiString(std::string& value, u16 id, u16 point, u16 mmIdx, u16 idx, u16 uom, short norm,
                     unsigned int option) override {
        return Call(std::to_string(point) + "/" + std::to_string(mmIdx),
                    [&] { return m_device.GetMaiString(value, id, point, mmIdx, idx, uom, norm, option); });
    }

    int GetMaiUint32(unsigned int& value, u16 id, u16 point, u16 mmIdx, u16 idx, u16 uom,
                     short norm) override {
        return Call(std::to_string(point),
                    [&] { return m_device.GetMaiUint32(value, id, point, mmIdx, idx, uom, norm); });
    }

    int SetMaiString(const char* value, u16 id, u16 point, u16 mmIdx, u16 idx, u16 uom, short norm,
                     unsigned int option, unsigned int timeout) override {
        return Call(Write(point, value, mmIdx == kModule && timeout == 1000), [&] {
            return m_device.SetMaiString(value, id, point, mmIdx, idx, uom, norm, option, timeout);
        });
    }

    int SetMaiUint32(unsigned int value, u16 id, u16 point, u16 mmIdx, u16 idx, u16 uom, short norm,
                     unsigned int timeout) override {
        return Call(Write(point, std::to_string(value), mmIdx == kModule && timeout == 5000),
                    [&] { return m_device.SetMaiUint32(value, id, point, mmIdx, idx, uom, norm, timeout); });
    }

    int GetMaxModuleCount(unsigned int& count, u16 id, u16 report) override {
        return m_device.GetMaxModuleCount(count, id, report);
    }
    int GetPointReportId(unsigned int& report, u16 id, u16 point) override {
        return m_device.GetPointReportId(report, id, point);
    }

    bool DoGetDevFile(u16 id, const std::string& option, const std::string& name) override {
        return Call("get " + name, [&] { return m_device.GetDevFile(id, option, name) ? 0 : 1; }) == 0;
    }
    bool DoPutDevFile(u16 id, const std::string& directory, const std::string& name,
                      const std::string& newName) override {
        return Call("put " + directory + " " + name + " " + newName,
                    [&] { return m_device.PutDevFile(id, directory, name, newName) ? 0 : 1; }) == 0;
    }
    void AbortTransfer(u16 id) override {
        Call("abort", [&] { return m_device.AbortTransfer(id), 0; });
    }

    KyPldProxy& m_device;
    mutable std::mutex m_mutex;
    Hook m_hook;
    std::vector<std::string> m_calls;
};

#endif
