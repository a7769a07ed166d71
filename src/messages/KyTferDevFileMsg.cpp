#include "messages/KyTferDevFileMsg.h"

#include "platform/KyIpcMsgUtil.h"

KyTferDevFileMsg::KyTferDevFileMsg(int sizeHint) : KyTferMsg(sizeHint), m_xferFileSize(0) {}

KyTferDevFileMsg::KyTferDevFileMsg(const std::string& origFileName, const std::string& xferFileName,
                                   int xferFileSize, int sizeHint)
    : KyTferMsg(sizeHint),
      m_origFileName(origFileName),
      m_xferFileName(xferFileName),
      m_xferFileSize(xferFileSize) {}

KyTferDevFileMsg::KyTferDevFileMsg(const KyTferDevFileMsg& other) = default;

KyTferDevFileMsg& KyTferDevFileMsg::operator=(const KyTferDevFileMsg& other) = default;

KyTferDevFileMsg::~KyTferDevFileMsg() = default;

void KyTferDevFileMsg::Serialize(KyIpcMsgBuffer* buffer) {
    KyTferMsg::Serialize(buffer);
    Put(buffer, m_xferFileName);
    Put(buffer, m_origFileName);
    Put(buffer, m_xferFileSize);
}

void KyTferDevFileMsg::Deserialize(KyIpcMsgBuffer* buffer) {
    KyTferMsg::Deserialize(buffer);
    KyIpcMsgUtil::ExtractStringParam(buffer, m_xferFileName);
    KyIpcMsgUtil::ExtractStringParam(buffer, m_origFileName);
    m_xferFileSize = KyIpcMsgUtil::ExtractInteger(buffer);
}
