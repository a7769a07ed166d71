#include "messages/KyTferGetDevDirMsg.h"

KyTferGetDevDirMsg::KyTferGetDevDirMsg(int sizeHint) : KyTferMsg(sizeHint) {
    SetMsgType(TFER_MSG_GET_DEV_DIR);
}

KyTferGetDevDirMsg::~KyTferGetDevDirMsg() = default;

void KyTferGetDevDirMsg::Serialize(KyIpcMsgBuffer* buffer) {
    KyTferMsg::Serialize(buffer);
}

void KyTferGetDevDirMsg::Deserialize(KyIpcMsgBuffer* buffer) {
    KyTferMsg::Deserialize(buffer);
}
