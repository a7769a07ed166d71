#include "messages/KyTferPutDevFile.h"

#include "platform/KyIpcMsgUtil.h"

KyTferPutDevFile::KyTferPutDevFile(int sizeHint) : KyTferDevFileMsg(sizeHint) {
    SetMsgType(TFER_MSG_PUT_DEV_FILE);
}

KyTferPutDevFile::KyTferPutDevFile(const KyTferPutDevFile& other) = default;

KyTferPutDevFile& KyTferPutDevFile::operator=(const KyTferPutDevFile& other) = default;

KyTferPutDevFile::~KyTferPutDevFile() = default;

void KyTferPutDevFile::Serialize(KyIpcMsgBuffer* buffer) {
    KyTferDevFileMsg::Serialize(buffer);
    Put(buffer, m_srcPath);
}

void KyTferPutDevFile::Deserialize(KyIpcMsgBuffer* buffer) {
    KyTferDevFileMsg::Deserialize(buffer);
    KyIpcMsgUtil::ExtractStringParam(buffer, m_srcPath);
}
