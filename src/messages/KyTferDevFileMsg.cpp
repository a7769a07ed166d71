#include "messages/KyTferDevFileMsg.h"

#include "platform/KyIpcMsgUtil.h"

KyTferDevFileMsg::KyTferDevFileMsg(int sizeHint) : KyTferMsg(sizeHint), m_xferFileSize(0) {}

KyTferDevFileMsg::KyTferDevFileMsg(const std::string& origFileName, const std::string& xferFileName,
                                   int xferFileSize, int sizeHint)
    : KyTferMsg(sizeHint), m_xferFileSize(xferFileSize) {
    SetOrigFileName(origFileName);
    SetXferFileName(xferFileName);
}

KyTferDevFileMsg::KyTferDevFileMsg(const KyTferDevFileMsg& other)
    : KyTferMsg(other), m_xferFileSize(other.m_xferFileSize) {
    SetOrigFileName(other.m_origFileName);
    SetXferFileName(other.m_xferFileName);
}

KyTferDevFileMsg& KyTferDevFileMsg::operator=(const KyTferDevFileMsg& other) {
    KyTferMsg::operator=(other);
    SetOrigFileName(other.m_origFileName);
    SetXferFileName(other.m_xferFileName);
    m_xferFileSize = other.m_xferFileSize;
    return *this;
}

KyTferDevFileMsg::~KyTferDevFileMsg() = default;

void KyTferDevFileMsg::Serialize(KyIpcMsgBuffer* buffer) {
    KyTferMsg::Serialize(buffer);
    Put(buffer, m_xferFileName);
    Put(buffer, m_origFileName);
    Put(buffer, m_xferFileSize);
}

void KyTferDevFileMsg::Deserialize(KyIpcMsgBuffer* buffer) {
    KyTferMsg::Deserialize(buffer);
    Extract(buffer, m_xferFileName);
    Extract(buffer, m_origFileName);
    m_xferFileSize = KyIpcMsgUtil::ExtractInteger(buffer);
}
