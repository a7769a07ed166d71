#include "messages/KyTferGetDevFile.h"

KyTferGetDevFile::KyTferGetDevFile(int sizeHint) : KyTferDevFileMsg(sizeHint) {
    SetMsgType(TFER_MSG_GET_DEV_FILE);
}

KyTferGetDevFile::~KyTferGetDevFile() = default;

void KyTferGetDevFile::Serialize(KyIpcMsgBuffer* buffer) {
    KyTferDevFileMsg::Serialize(buffer);
}

void KyTferGetDevFile::Deserialize(KyIpcMsgBuffer* buffer) {
    KyTferDevFileMsg::Deserialize(buffer);
}
