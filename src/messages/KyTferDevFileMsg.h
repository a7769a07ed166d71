#ifndef MESSAGES_KYTFERDEVFILEMSG_H
#define MESSAGES_KYTFERDEVFILEMSG_H

#include <string>

#include "messages/KyTferMsg.h"

/// Base of the requests to fetch a file and to push a file: the file's names and size. The derived class sets
/// the message type.
class KYTFER_EXPORT KyTferDevFileMsg : public KyTferMsg {
public:
    /// A message with empty names and a size of 0. The argument has no effect.
    explicit KyTferDevFileMsg(int sizeHint);

    /// A message with this file name, transfer name and size in bytes. The last argument has no effect.
    KyTferDevFileMsg(const std::string& origFileName, const std::string& xferFileName, int xferFileSize,
                     int sizeHint);

    /// A copy of every field of `other`, those of the message base included.
    KyTferDevFileMsg(const KyTferDevFileMsg& other);

    /// Copies every field, those of the message base included.
    KyTferDevFileMsg& operator=(const KyTferDevFileMsg& other);
    ~KyTferDevFileMsg() override;

    using KyTferMsg::operator=;

    void Serialize(KyIpcMsgBuffer* buffer) override;
    void Deserialize(KyIpcMsgBuffer* buffer) override;

    /// @{
    /// The file's own name on the card or the device. The service does not use it.
    const std::string& GetOrigFileName() const { return m_origFileName; }
    void SetOrigFileName(const std::string& name) { m_origFileName = name; }
    /// @}

    /// @{
    /// The transfer name: the name of the file in requests. It precedes the file name on the wire.
    const std::string& GetXferFileName() const { return m_xferFileName; }
    void SetXferFileName(const std::string& name) { m_xferFileName = name; }
    /// @}

    /// @{
    /// Size of the file in bytes; a size of 2 GiB or more is stored as a negative number.
    int GetXferFileSize() const { return m_xferFileSize; }
    void SetXferFileSize(int bytes) { m_xferFileSize = bytes; }
    /// @}

private:
    std::string m_origFileName;
    std::string m_xferFileName;
    int m_xferFileSize;
};

#endif
