#include "messages/KyTferCancelTransMsg.h"

KyTferCancelTransMsg::KyTferCancelTransMsg(int sizeHint) : KyTferMsg(sizeHint) {
    SetMsgType(TFER_MSG_CANCEL_TRANS);
}

KyTferCancelTransMsg::~KyTferCancelTransMsg() = default;

void KyTferCancelTransMsg::Serialize(KyIpcMsgBuffer* buffer) {
    KyTferMsg::Serialize(buffer);
}

void KyTferCancelTransMsg::Deserialize(KyIpcMsgBuffer* buffer) {
    KyTferMsg::Deserialize(buffer);
}
