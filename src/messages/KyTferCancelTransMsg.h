#ifndef MESSAGES_KYTFERCANCELTRANSMSG_H
#define MESSAGES_KYTFERCANCELTRANSMSG_H

#include "messages/KyTferMsg.h"

/// Asks the transfer service to cancel the transaction with this message's transaction identifier. Has only
/// the fields of every message.
class KYTFER_EXPORT KyTferCancelTransMsg : public KyTferMsg {
public:
    /// A request with empty fields. The argument has no effect.
    explicit KyTferCancelTransMsg(int sizeHint);
    ~KyTferCancelTransMsg() override;

    using KyTferMsg::operator=;

    void Serialize(KyIpcMsgBuffer* buffer) override;
    void Deserialize(KyIpcMsgBuffer* buffer) override;
};

#endif
