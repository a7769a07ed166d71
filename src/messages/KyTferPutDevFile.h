#ifndef MESSAGES_KYTFERPUTDEVFILE_H
#define MESSAGES_KYTFERPUTDEVFILE_H

#include <string>

#include "messages/KyTferDevFileMsg.h"

/// Asks the transfer service to push a file of the card to the device. The service uses the source path only:
/// it chooses the transfer name and reads the size.
class KYTFER_EXPORT KyTferPutDevFile : public KyTferDevFileMsg {
public:
    /// A request with empty names, a size of 0 and an empty source path. The argument has no effect.
    explicit KyTferPutDevFile(int sizeHint);

    /// A copy of every field of `other`, those of the message base included.
    KyTferPutDevFile(const KyTferPutDevFile& other);

    /// Copies every field, those of the message base included.
    KyTferPutDevFile& operator=(const KyTferPutDevFile& other);
    ~KyTferPutDevFile() override;

    using KyTferMsg::operator=;

    void Serialize(KyIpcMsgBuffer* buffer) override;
    void Deserialize(KyIpcMsgBuffer* buffer) override;

    /// @{
    /// Absolute path of the file to push, on the card. The service moves the file away from this path.
    const std::string& GetSrcPath() const { return m_srcPath; }
    void SetSrcPath(const std::string& path) { m_srcPath = path; }
    /// @}

private:
    std::string m_srcPath;
};

#endif
