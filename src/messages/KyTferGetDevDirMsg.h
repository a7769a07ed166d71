#ifndef MESSAGES_KYTFERGETDEVDIRMSG_H
#define MESSAGES_KYTFERGETDEVDIRMSG_H

#include "messages/KyTferMsg.h"

/// Asks the transfer service to fetch the device's directory listing. Has only the fields of every message.
class KYTFER_EXPORT KyTferGetDevDirMsg : public KyTferMsg {
public:
    /// A request with empty fields. The argument has no effect.
    explicit KyTferGetDevDirMsg(int sizeHint);
    ~KyTferGetDevDirMsg() override;

    using KyTferMsg::operator=;

    void Serialize(KyIpcMsgBuffer* buffer) override;
    void Deserialize(KyIpcMsgBuffer* buffer) override;
};

#endif
