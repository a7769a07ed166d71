#include "messages/KyTferPutDevFile.h"

KyTferPutDevFile::KyTferPutDevFile(int sizeHint) : KyTferDevFileMsg(sizeHint) {
    SetMsgType(TFER_MSG_PUT_DEV_FILE);
}

KyTferPutDevFile::KyTferPutDevFile(const KyTferPutDevFile& other) : KyTferDevFileMsg(other) {
    SetSrcPath(other.m_srcPath);
}

KyTferPutDevFile& KyTferPutDevFile::operator=(const KyTferPutDevFile& other) {
    KyTferDevFileMsg::operator=(other);
    SetSrcPath(other.m_srcPath);
    return *this;
}

KyTferPutDevFile::~KyTferPutDevFile() = default;

void KyTferPutDevFile::Serialize(KyIpcMsgBuffer* buffer) {
    KyTferDevFileMsg::Serialize(buffer);
    Put(buffer, m_srcPath);
}

void KyTferPutDevFile::Deserialize(KyIpcMsgBuffer* buffer) {
    KyTferDevFileMsg::Deserialize(buffer);
    Extract(buffer, m_srcPath);
}
