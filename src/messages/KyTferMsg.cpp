#include "messages/KyTferMsg.h"

#include <utility>

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
    m_whole = other->m_whole;
    SetCallerContext(other->m_callerContext);
    SetRespFifo(other->m_respFifo);
    SetTransId(other->m_transId);
}

void KyTferMsg::SwapWith(KyTferMsg& other) noexcept {
    std::swap(m_whole, other.m_whole);
    std::swap(m_msgType, other.m_msgType);
    std::swap(m_sorServerId, other.m_sorServerId);
    m_transId.swap(other.m_transId);
    m_callerContext.swap(other.m_callerContext);
    m_respFifo.swap(other.m_respFifo);
}

// What the platform's operations return does not count: a field that was not there is empty, and one that
// was put has made the buffer longer.
void KyTferMsg::Put(KyIpcMsgBuffer* buffer, int value) {
    const int before = buffer->GetLength();
    KyIpcMsgUtil::PutInteger(buffer, value);
    if (buffer->GetLength() == before) m_whole = false;
}

void KyTferMsg::Put(KyIpcMsgBuffer* buffer, const std::string& text) {
    const int before = buffer->GetLength();
    KyIpcMsgUtil::PutStringParam(buffer, text);
    if (buffer->GetLength() == before) m_whole = false;
}

void KyTferMsg::Extract(KyIpcMsgBuffer* buffer, std::string& text) {
    Try([&] { KyIpcMsgUtil::ExtractStringParam(buffer, text); });
}

void KyTferMsg::Serialize(KyIpcMsgBuffer* buffer) {
    Put(buffer, m_msgType);
    Put(buffer, m_sorServerId);
    Put(buffer, m_transId);
    Put(buffer, m_callerContext);
    Put(buffer, m_respFifo);
}

void KyTferMsg::Deserialize(KyIpcMsgBuffer* buffer) {
    m_whole = true;
    m_msgType = static_cast<TferMsgType>(KyIpcMsgUtil::ExtractInteger(buffer));
    // A foreign writer may put more than 16 bits here; the low ones count.
    m_sorServerId = static_cast<unsigned short>(KyIpcMsgUtil::ExtractInteger(buffer) & 0xFFFF);
    Extract(buffer, m_transId);
    Extract(buffer, m_callerContext);
    Extract(buffer, m_respFifo);
}

int KyTferMsg::PeekMsgType(const unsigned char* bytes) {
    return KyIpcMsgUtil::ExtractInteger(bytes);
}
