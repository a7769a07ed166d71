#ifndef ENGINE_GATEPROXY_H
#define ENGINE_GATEPROXY_H

#include <functional>

#include "platform/KyPldProxy.h"

/// A proxy in front of another, with hooks for a test to wait in, or to act from, while the engine is inside
/// of a call. The hooks are set while no call runs; an empty one does nothing.
class GateProxy : public KyPldProxy {
public:
    explicit GateProxy(KyPldProxy& device) : m_device(device) {}

    std::function<void()> beforeGetFile;  ///< the engine has asked, nothing has moved
    std::function<void()> afterGetFile;   ///< the file is there
    std::function<void(const char* value)> afterSetString;
    std::function<void(std::string& value)> onGetString;  ///< may replace the value, or throw

    int GetMaiString(std::string& value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int option) override {
        const int status = m_device.GetMaiString(value, device, pointId, mmIdx, idx, uom, norm, option);
        if (onGetString) onGetString(value);
        return status;
    }
    int GetMaiUint32(unsigned int& value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm) override {
        return m_device.GetMaiUint32(value, device, pointId, mmIdx, idx, uom, norm);
    }
    int SetMaiString(const char* value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int option,
                     unsigned int timeout) override {
        const int status =
            m_device.SetMaiString(value, device, pointId, mmIdx, idx, uom, norm, option, timeout);
        if (afterSetString) afterSetString(value);
        return status;
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

protected:
    bool DoGetDevFile(unsigned short device, const std::string& option,
                      const std::string& fileName) override {
        if (beforeGetFile) beforeGetFile();
        const bool delivered = m_device.GetDevFile(device, option, fileName);
        if (afterGetFile) afterGetFile();
        return delivered;
    }
    bool DoPutDevFile(unsigned short device, const std::string& directory, const std::string& fileName,
                      const std::string& xferFileName) override {
        return m_device.PutDevFile(device, directory, fileName, xferFileName);
    }

private:
    KyPldProxy& m_device;
};

#endif
