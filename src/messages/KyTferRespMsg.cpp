#include "messages/KyTferRespMsg.h"

#include "platform/KyIpcMsgUtil.h"

KyTferRespMsg::KyTferRespMsg(int sizeHint) : KyTferMsg(sizeHint), m_resultStatus(TFER_RESULT_NONE) {
    SetMsgType(TFER_MSG_RESP);
}

KyTferRespMsg::KyTferRespMsg(const KyTferRespMsg& other) = default;

KyTferRespMsg& KyTferRespMsg::operator=(const KyTferRespMsg& other) = default;

KyTferRespMsg::~KyTferRespMsg() = default;

void KyTferRespMsg::Serialize(KyIpcMsgBuffer* buffer) {
    KyTferMsg::Serialize(buffer);
    Put(buffer, m_resultStatus);
    Put(buffer, m_resultMsg);
}

void KyTferRespMsg::Deserialize(KyIpcMsgBuffer* buffer) {
    KyTferMsg::Deserialize(buffer);
    m_resultStatus = static_cast<TferMsgResult>(KyIpcMsgUtil::ExtractInteger(buffer));
    KyIpcMsgUtil::ExtractStringParam(buffer, m_resultMsg);
}
