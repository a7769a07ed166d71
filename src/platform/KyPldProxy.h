#ifndef PLATFORM_KYPLDPROXY_H
#define PLATFORM_KYPLDPROXY_H

#include <string>

/// Access to the managed device: its numbered points and its files. A card derives its own proxy from this
/// class.
///
/// Several threads may call every operation at once. All operations but AbortTransfer block until the device
/// has answered or the proxy's own time limit has passed. The proxy must have a time limit, because the
/// transfer engine has none for a call. No operation may throw; the engine treats an exception as a failure.
///
/// A point is a numbered value of the device. It is addressed by device, point identifier and multi-module
/// index `mmIdx`. That is the number of a module in the device, 1 or more; the engine passes the number of the
/// card's module, or 0 if it is not known. `idx`, `uom`, `norm` and `option` are further parts of the platform's
/// addresses; the transfer engine passes 0 for each.
///
/// The point operations return 0 for success and the proxy's failure code otherwise. After a failed read, the
/// engine does not use the output argument.
class KyPldProxy {
public:
    /// Reads a string point into `value`.
    virtual int GetMaiString(std::string& value, unsigned short device, unsigned short pointId,
                             unsigned short mmIdx, unsigned short idx, unsigned short uom, short norm,
                             unsigned int option) = 0;

    /// Reads a 32-bit integer point into `value`.
    virtual int GetMaiUint32(unsigned int& value, unsigned short device, unsigned short pointId,
                             unsigned short mmIdx, unsigned short idx, unsigned short uom, short norm) = 0;

    /// Writes a string point. `value` ends with a NUL and is valid during the call only. The proxy defines
    /// the unit of `timeout` (the engine passes 1000).
    virtual int SetMaiString(const char* value, unsigned short device, unsigned short pointId,
                             unsigned short mmIdx, unsigned short idx, unsigned short uom, short norm,
                             unsigned int option, unsigned int timeout) = 0;

    /// Writes a 32-bit integer point. The proxy defines the unit of `timeout` (the engine passes 5000).
    virtual int SetMaiUint32(unsigned int value, unsigned short device, unsigned short pointId,
                             unsigned short mmIdx, unsigned short idx, unsigned short uom, short norm,
                             unsigned int timeout) = 0;

    /// Reads the number of modules that have a report: their multi-module indexes are 1 to `count`.
    virtual int GetMaxModuleCount(unsigned int& count, unsigned short device, unsigned short reportId) = 0;

    /// Reads the identifier of the report that contains a point; fails if the device has no such report.
    virtual int GetPointReportId(unsigned int& reportId, unsigned short device, unsigned short pointId) = 0;

    virtual ~KyPldProxy();

    /// Fetches a file into the device's landing directory on the card, under its transfer name. The landing
    /// directory is "/var/local/tal/pldserver/" and the identifier of the device. The file must grow there while
    /// it arrives: the engine reads the progress from its size. The file is complete and closed when the call
    /// returns.
    ///
    /// @param device        identifier of the managed device
    /// @param option        defined by the platform; the engine passes the empty string
    /// @param transferName  the name of the file in requests to the device
    /// @return true if a file was delivered. The engine ignores the result and checks the size of the file.
    bool GetDevFile(unsigned short device, const std::string& option, const std::string& transferName);

    /// Pushes a file of the card to the device; returns when the transfer has ended. Does not change or remove
    /// the file.
    ///
    /// @param device        identifier of the managed device
    /// @param directory     directory of the file on the card, ending with "/"
    /// @param fileName      the file's name in that directory
    /// @param transferName  the name under which the device stores the file
    /// @return true if the device has received the complete file; decides whether the push has succeeded
    bool PutDevFile(unsigned short device, const std::string& directory, const std::string& fileName,
                    const std::string& transferName);

protected:
    KyPldProxy() = default;
    KyPldProxy(const KyPldProxy&) = delete;
    KyPldProxy& operator=(const KyPldProxy&) = delete;

    /// Does the work of GetDevFile.
    virtual bool DoGetDevFile(unsigned short device, const std::string& option,
                              const std::string& transferName) = 0;

    /// Does the work of PutDevFile.
    virtual bool DoPutDevFile(unsigned short device, const std::string& directory,
                              const std::string& fileName, const std::string& transferName) = 0;

public:
    /// Aborts the running GetDevFile and PutDevFile calls of the device: they soon return false, and partial
    /// files stay. Later calls are not affected. The engine calls it when a transfer is cancelled.
    ///
    /// Optional: without an implementation, the calls run to their end. Declared last, so that the other
    /// operations keep their places in the table of virtual functions.
    ///
    /// Any thread may call it, several times, and also when no call runs. It must not block: it does not wait
    /// for the aborted calls.
    ///
    /// @param device  identifier of the managed device
    virtual void AbortTransfer(unsigned short device) { static_cast<void>(device); }
};

#endif
