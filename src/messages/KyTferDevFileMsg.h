#ifndef MESSAGES_KYTFERDEVFILEMSG_H
#define MESSAGES_KYTFERDEVFILEMSG_H

#include <string>

#include "messages/KyTferMsg.h"

/// What the requests to fetch a file from the device and to push one to it have in common: the file's names
/// and its size. The type of the message is left to the derived class.
class KYTFER_EXPORT KyTferDevFileMsg : public KyTferMsg {
public:
    /// A message with empty names and a size of 0. The argument is handed to KyTferMsg and has no effect.
    explicit KyTferDevFileMsg(int sizeHint);

    /// A message with the given original name, name on the transfer path and size in bytes; the last argument
    /// as above.
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
    /// The file's name as the requester knows it.
    const std::string& GetOrigFileName() const { return m_origFileName; }
    void SetOrigFileName(const std::string& name) { m_origFileName = name; }
    /// @}

    /// @{
    /// The file's name on the way between card and device. On the wire it comes before the original name.
    const std::string& GetXferFileName() const { return m_xferFileName; }
    void SetXferFileName(const std::string& name) { m_xferFileName = name; }
    /// @}

    /// @{
    /// Size of the file in bytes. A received message may hold any value, a negative one too.
    int GetXferFileSize() const { return m_xferFileSize; }
    void SetXferFileSize(int bytes) { m_xferFileSize = bytes; }
    /// @}

private:
    std::string m_origFileName;
    std::string m_xferFileName;
    int m_xferFileSize;
};

#endif
