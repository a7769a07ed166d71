#ifndef MESSAGES_KYTFERGETDEVFILE_H
#define MESSAGES_KYTFERGETDEVFILE_H

#include "messages/KyTferDevFileMsg.h"

/// Asks the transfer service to fetch a file from the device. The service uses the transfer name and the size.
class KYTFER_EXPORT KyTferGetDevFile : public KyTferDevFileMsg {
public:
    /// A request with empty names and a size of 0. The argument has no effect.
    explicit KyTferGetDevFile(int sizeHint);
    ~KyTferGetDevFile() override;

    using KyTferMsg::operator=;

    void Serialize(KyIpcMsgBuffer* buffer) override;
    void Deserialize(KyIpcMsgBuffer* buffer) override;
};

#endif
