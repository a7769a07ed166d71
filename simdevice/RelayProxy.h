#ifndef SIMDEVICE_RELAYPROXY_H
#define SIMDEVICE_RELAYPROXY_H

#include <string>

#include "platform/KyPldProxy.h"

/// The operations of the proxy.
enum class ProxyOperation {
    GET_STRING,
    GET_UINT32,
    SET_STRING,
    SET_UINT32,
    MODULE_COUNT,
    REPORT_ID,
    GET_FILE,
    PUT_FILE
};

/// A call of the proxy by the card.
struct ProxyCall {
    ProxyOperation operation = ProxyOperation::GET_STRING;
    unsigned int pointId = 0;   ///< the point; for MODULE_COUNT the report; 0 for files
    std::string value;          ///< the written value, numbers in decimal; the name of a fetched file; for a
                                ///< push directory, name and transfer name, separated by " "
    unsigned int timeout = 0;   ///< of writes, as passed
    unsigned short device = 0;  ///< as passed
    unsigned short mmIdx = 0;   ///< as passed; 0 for calls without one
};

/// A proxy that hands every call on to another one. A derived class sees the calls first: unlike a fault of the
/// device, it can throw.
class RelayProxy : public KyPldProxy {
public:
    /// @param next  must outlive this object
    explicit RelayProxy(KyPldProxy& next) : m_next(next) {}

    int GetMaiString(std::string& value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int option) override {
        const int status = Before({ProxyOperation::GET_STRING, pointId, "", 0, device, mmIdx});
        return status != 0 ? status
                           : m_next.GetMaiString(value, device, pointId, mmIdx, idx, uom, norm, option);
    }
    int GetMaiUint32(unsigned int& value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm) override {
        const int status = Before({ProxyOperation::GET_UINT32, pointId, "", 0, device, mmIdx});
        return status != 0 ? status : m_next.GetMaiUint32(value, device, pointId, mmIdx, idx, uom, norm);
    }
    int SetMaiString(const char* value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int option,
                     unsigned int timeout) override {
        const int status = Before(
            {ProxyOperation::SET_STRING, pointId, value == nullptr ? "" : value, timeout, device, mmIdx});
        return status != 0
                   ? status
                   : m_next.SetMaiString(value, device, pointId, mmIdx, idx, uom, norm, option, timeout);
    }
    int SetMaiUint32(unsigned int value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int timeout) override {
        const int status =
            Before({ProxyOperation::SET_UINT32, pointId, std::to_string(value), timeout, device, mmIdx});
        return status != 0 ? status
                           : m_next.SetMaiUint32(value, device, pointId, mmIdx, idx, uom, norm, timeout);
    }
    int GetMaxModuleCount(unsigned int& count, unsigned short device, unsigned short reportId) override {
        const int status = Before({ProxyOperation::MODULE_COUNT, reportId, "", 0, device, 0});
        return status != 0 ? status : m_next.GetMaxModuleCount(count, device, reportId);
    }
    int GetPointReportId(unsigned int& reportId, unsigned short device, unsigned short pointId) override {
        const int status = Before({ProxyOperation::REPORT_ID, pointId, "", 0, device, 0});
        return status != 0 ? status : m_next.GetPointReportId(reportId, device, pointId);
    }
    void AbortTransfer(unsigned short device) override { m_next.AbortTransfer(device); }

protected:
    /// Called for each call but AbortTransfer, on its thread. The default hands every call on.
    ///
    /// @return 0 to hand the call on; otherwise its status, which makes a file operation return false
    virtual int Before(const ProxyCall& /*call*/) { return 0; }

    bool DoGetDevFile(unsigned short device, const std::string& option,
                      const std::string& fileName) override {
        return Before({ProxyOperation::GET_FILE, 0, fileName, 0, device, 0}) == 0 &&
               m_next.GetDevFile(device, option, fileName);
    }
    bool DoPutDevFile(unsigned short device, const std::string& directory, const std::string& fileName,
                      const std::string& xferFileName) override {
        const std::string names = directory + " " + fileName + " " + xferFileName;
        return Before({ProxyOperation::PUT_FILE, 0, names, 0, device, 0}) == 0 &&
               m_next.PutDevFile(device, directory, fileName, xferFileName);
    }

private:
    KyPldProxy& m_next;
};

#endif
