#ifndef BENCH_RELAYPROXY_H
#define BENCH_RELAYPROXY_H

#include <functional>
#include <string>

#include "platform/KyPldProxy.h"

/// A proxy that hands every call on to another, and tells before it hands on a string write.
class RelayProxy : public KyPldProxy {
public:
    using Observer = std::function<void(const char* value)>;

    RelayProxy(KyPldProxy& device, Observer beforeSetString)
        : m_device(device), m_beforeSetString(std::move(beforeSetString)) {}

    int GetMaiString(std::string& value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int option) override {
        return m_device.GetMaiString(value, device, pointId, mmIdx, idx, uom, norm, option);
    }
    int GetMaiUint32(unsigned int& value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm) override {
        return m_device.GetMaiUint32(value, device, pointId, mmIdx, idx, uom, norm);
    }
    int SetMaiString(const char* value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int option,
                     unsigned int timeout) override {
        m_beforeSetString(value);
        return m_device.SetMaiString(value, device, pointId, mmIdx, idx, uom, norm, option, timeout);
    }
    int SetMaiUint32(unsigned int value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int timeout) override {
        return m_device.SetMaiUint32(value, device, pointId, mmIdx, idx, uom, norm, timeout);
    }
    int GetMaxModuleCount(unsigned int& count, unsigned short device, unsigned short reportId) override {
        return m_device.GetMaxModuleCount(count, device, reportId);
    }
    int GetPointReportId(unsigned int& reportId, unsigned short device, unsigned short pointId) override {
        return m_device.GetPointReportId(reportId, device, pointId);
    }
    void AbortTransfer(unsigned short device) override { m_device.AbortTransfer(device); }

protected:
    bool DoGetDevFile(unsigned short device, const std::string& option,
                      const std::string& fileName) override {
        return m_device.GetDevFile(device, option, fileName);
    }
    bool DoPutDevFile(unsigned short device, const std::string& directory, const std::string& fileName,
                      const std::string& xferFileName) override {
        return m_device.PutDevFile(device, directory, fileName, xferFileName);
    }

private:
    KyPldProxy& m_device;
    const Observer m_beforeSetString;
};

#endif
