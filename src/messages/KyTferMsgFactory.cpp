#include "messages/KyTferMsgFactory.h"

#include <memory>
#include <new>

#include "messages/KyTferCancelTransMsg.h"
#include "messages/KyTferGetDevDirMsg.h"
#include "messages/KyTferGetDevFile.h"
#include "messages/KyTferPutDevFile.h"
#include "messages/KyTferRespMsg.h"
#include "messages/KyTferStatusMsg.h"
#include "platform/KyIpcMsgBuffer.h"

namespace {

/// The constructors do not throw: empty texts allocate no memory.
template <typename Message>
KyTferMsg* New() {
    return new (std::nothrow) Message(512);
}

}  // namespace

KyTferMsg* KyTferMsgFactory::CreateMsg(KyTferMsg::TferMsgType type) {
    switch (static_cast<unsigned int>(type)) {
        case KyTferMsg::TFER_MSG_GET_DEV_FILE:
            return New<KyTferGetDevFile>();
        case KyTferMsg::TFER_MSG_PUT_DEV_FILE:
            return New<KyTferPutDevFile>();
        case KyTferMsg::TFER_MSG_GET_DEV_DIR:
            return New<KyTferGetDevDirMsg>();
        case KyTferMsg::TFER_MSG_RESP:
            return New<KyTferRespMsg>();
        case KyTferMsg::TFER_MSG_STATUS:
            return New<KyTferStatusMsg>();
        case KyTferMsg::TFER_MSG_CANCEL_TRANS:
            return New<KyTferCancelTransMsg>();
        default:
            return nullptr;
    }
}

KyTferMsg* KyTferMsgFactory::CreateMsgFromBuffer(KyIpcMsgBuffer* buffer) {
    try {
        const int type = KyTferMsg::PeekMsgType(buffer->GetBuf());
        std::unique_ptr<KyTferMsg> message(CreateMsg(static_cast<KyTferMsg::TferMsgType>(type)));
        if (message) message->Deserialize(buffer);
        return message.release();
    } catch (...) {
        return nullptr;
    }
}
