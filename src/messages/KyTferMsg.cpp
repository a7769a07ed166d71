#include "messages/KyTferMsg.h"

#include <new>
#include <utility>

#include "platform/KyDlog.h"
#include "platform/KyIpcMsgBuffer.h"
#include "platform/KyIpcMsgUtil.h"

namespace {

/// Throws unless `buffer` holds more than `length` bytes. The status of KyIpcMsgUtil is not used: the
/// platform of a card may return another one.
void RequireMoreThan(long long length, const KyIpcMsgBuffer& buffer) {
    if (buffer.GetLength() <= length) throw std::bad_alloc();
}

}  // namespace

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
    SetCallerContext(other->m_callerContext);
    SetRespFifo(other->m_respFifo);
    SetTransId(other->m_transId);
}

void KyTferMsg::SwapWith(KyTferMsg& other) noexcept {
    std::swap(m_msgType, other.m_msgType);
    std::swap(m_sorServerId, other.m_sorServerId);
    m_transId.swap(other.m_transId);
    m_callerContext.swap(other.m_callerContext);
    m_respFifo.swap(other.m_respFifo);
}

void KyTferMsg::Put(KyIpcMsgBuffer* buffer, int value) {
    const long long before = buffer->GetLength();
    KyIpcMsgUtil::PutInteger(buffer, value);
    RequireMoreThan(before, *buffer);
}

// A text is longer on the wire than in memory: the wire has its length or its end too.
void KyTferMsg::Put(KyIpcMsgBuffer* buffer, const std::string& text) {
    const long long before = buffer->GetLength();
    KyIpcMsgUtil::PutStringParam(buffer, text);
    RequireMoreThan(before + static_cast<long long>(text.size()), *buffer);
}

void KyTferMsg::Serialize(KyIpcMsgBuffer* buffer) {
    Put(buffer, m_msgType);
    Put(buffer, m_sorServerId);
    Put(buffer, m_transId);
    Put(buffer, m_callerContext);
    Put(buffer, m_respFifo);
}

void KyTferMsg::Deserialize(KyIpcMsgBuffer* buffer) {
    m_msgType = static_cast<TferMsgType>(KyIpcMsgUtil::ExtractInteger(buffer));
    // Another implementation may write more than 16 bits.
    m_sorServerId = static_cast<unsigned short>(KyIpcMsgUtil::ExtractInteger(buffer) & 0xFFFF);
    KyIpcMsgUtil::ExtractStringParam(buffer, m_transId);
    KyIpcMsgUtil::ExtractStringParam(buffer, m_callerContext);
    KyIpcMsgUtil::ExtractStringParam(buffer, m_respFifo);
}

int KyTferMsg::PeekMsgType(const unsigned char* bytes) {
    return KyIpcMsgUtil::ExtractInteger(bytes);
}
