#ifndef PLATFORM_KYPLDPROXY_H
#define PLATFORM_KYPLDPROXY_H

#include <string>

/// The card's way to the managed device: its numbered points and its file path.
///
/// A card brings its own proxy by deriving from this class. Every operation may be called from several
/// threads at once. All but AbortTransfer block until the device has answered or the proxy's own time limit
/// has passed: the transfer engine sets no limit of its own around a call.
///
/// A point is addressed by device, point identifier and multi-module index (counted from 1; 0 when the
/// card's index is not known). `idx`, `uom`, `norm` and `option` are further addressing of the platform's;
/// the transfer engine passes 0 for each.
///
/// The point operations return a status: 0 is success, any other value is the proxy's failure code. What a
/// failed read leaves in its output argument is not used.
class KyPldProxy {
public:
    /// Reads a string point into `value`.
    virtual int GetMaiString(std::string& value, unsigned short device, unsigned short pointId,
                             unsigned short mmIdx, unsigned short idx, unsigned short uom, short norm,
                             unsigned int option) = 0;

    /// Reads a 32-bit integer point into `value`.
    virtual int GetMaiUint32(unsigned int& value, unsigned short device, unsigned short pointId,
                             unsigned short mmIdx, unsigned short idx, unsigned short uom, short norm) = 0;

    /// Writes a string point. `value` ends with a NUL and is not kept; the unit of `timeout` is the proxy's
    /// (the engine passes 1000).
    virtual int SetMaiString(const char* value, unsigned short device, unsigned short pointId,
                             unsigned short mmIdx, unsigned short idx, unsigned short uom, short norm,
                             unsigned int option, unsigned int timeout) = 0;

    /// Writes a 32-bit integer point. The unit of `timeout` is the proxy's (the engine passes 5000).
    virtual int SetMaiUint32(unsigned int value, unsigned short device, unsigned short pointId,
                             unsigned short mmIdx, unsigned short idx, unsigned short uom, short norm,
                             unsigned int timeout) = 0;

    /// Tells how many module instances (multi-module indexes) the device holds for a report.
    virtual int GetMaxModuleCount(unsigned int& count, unsigned short device, unsigned short reportId) = 0;

    /// Tells which report of the device holds a point; fails if the device has no such report.
    virtual int GetPointReportId(unsigned int& reportId, unsigned short device, unsigned short pointId) = 0;

    virtual ~KyPldProxy();

    /// Fetches the device's file `fileName` into the device's landing directory on the card. The file grows
    /// there while it arrives, is complete and closed when the call returns, and keeps its name.
    ///
    /// @param device    identifier of the managed device
    /// @param option    the platform's; the engine passes the empty string
    /// @param fileName  the file's name on the device
    /// @return true if a file was delivered. The engine does not look at it: it measures the file.
    bool GetDevFile(unsigned short device, const std::string& option, const std::string& fileName);

    /// Pushes a file of the card to the device; returns when the transfer has ended.
    ///
    /// @param device        identifier of the managed device
    /// @param directory     directory of the file on the card, ending with "/"
    /// @param fileName      the file's name in that directory
    /// @param xferFileName  name under which the file arrives on the device
    /// @return true if the device has taken the whole file
    bool PutDevFile(unsigned short device, const std::string& directory, const std::string& fileName,
                    const std::string& xferFileName);

protected:
    KyPldProxy() = default;
    KyPldProxy(const KyPldProxy&) = delete;
    KyPldProxy& operator=(const KyPldProxy&) = delete;

    /// Does the work of GetDevFile.
    virtual bool DoGetDevFile(unsigned short device, const std::string& option,
                              const std::string& fileName) = 0;

    /// Does the work of PutDevFile.
    virtual bool DoPutDevFile(unsigned short device, const std::string& directory,
                              const std::string& fileName, const std::string& xferFileName) = 0;

public:
    /// Ends the calls of GetDevFile and PutDevFile that are under way on the device: they return false soon,
    /// and what has been delivered of a file stays where it is. Later calls are not affected. The engine
    /// calls it when a transfer is abandoned.
    ///
    /// Optional: a proxy that does not implement it lets the calls run to their end. Declared last, so that
    /// the other operations keep their places in the table of virtual functions.
    ///
    /// It may be called from any thread, several times, and when nothing is under way, which is no failure.
    /// It must not block: it asks the calls to end and does not wait for them.
    ///
    /// @param device  identifier of the managed device
    virtual void AbortTransfer(unsigned short device) { static_cast<void>(device); }
};

#endif
