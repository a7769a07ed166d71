#include "messages/KyTferMsg.h"

#include "platform/KyDlog.h"
#include "platform/KyIpcMsgBuffer.h"
#include "platform/KyIpcMsgUtil.h"

KyTferMsg::KyTferMsg(int /*sizeHint*/) : m_msgType(TFER_MSG_NONE), m_sorServerId(0) {}

KyTferMsg::KyTferMsg(const KyTferMsg& other) : m_msgType(TFER_MSG_NONE), m_sorServerId(0) {
    KyTferMsg::Copy(&other);
}

KyTferMsg::~KyTferMsg() = default;

KyTferMsg& KyTferMsg::operator=(const KyTferMsg& other) {
    __dlog_printfex(KY_DLOG_NOTICE, "KyTferMsg", "operator=", "Enter %p", static_cast<void*>(this));
    Copy(&other);
    return *this;
}

void KyTferMsg::Copy(const KyTferMsg* other) {
    if (other == nullptr) return;
    m_msgType = other->m_msgType;
    m_sorServerId = other->m_sorServerId;
    m_callerContext = other->m_callerContext;
    m_respFifo = other->m_respFifo;
    m_transId = other->m_transId;
}

void KyTferMsg::Serialize(KyIpcMsgBuffer* buffer) {
    KyIpcMsgUtil::PutInteger(buffer, m_msgType);
    KyIpcMsgUtil::PutInteger(buffer, m_sorServerId);
    KyIpcMsgUtil::PutStringParam(buffer, m_transId);
    KyIpcMsgUtil::PutStringParam(buffer, m_callerContext);
    KyIpcMsgUtil::PutStringParam(buffer, m_respFifo);
}

void KyTferMsg::Deserialize(KyIpcMsgBuffer* buffer) {
    m_msgType = static_cast<TferMsgType>(KyIpcMsgUtil::ExtractInteger(buffer));
    // A foreign writer may put more than 16 bits here; the low ones count.
    m_sorServerId = static_cast<unsigned short>(KyIpcMsgUtil::ExtractInteger(buffer) & 0xFFFF);
    KyIpcMsgUtil::ExtractStringParam(buffer, m_transId);
    KyIpcMsgUtil::ExtractStringParam(buffer, m_callerContext);
    KyIpcMsgUtil::ExtractStringParam(buffer, m_respFifo);
}

int KyTferMsg::PeekMsgType(const unsigned char* bytes) {
    return KyIpcMsgUtil::ExtractInteger(bytes);
}
