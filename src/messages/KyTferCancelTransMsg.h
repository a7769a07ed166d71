#ifndef MESSAGES_KYTFERCANCELTRANSMSG_H
#define MESSAGES_KYTFERCANCELTRANSMSG_H

#include "messages/KyTferMsg.h"

/// Asks the transfer service to cancel the transaction whose request had this message's transaction
/// identifier. An empty identifier cancels all transactions in progress. Has only the fields of every message.
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
