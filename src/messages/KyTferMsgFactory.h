#ifndef MESSAGES_KYTFERMSGFACTORY_H
#define MESSAGES_KYTFERMSGFACTORY_H

#include "messages/KyTferMsg.h"

class KyIpcMsgBuffer;

/// Makes messages of the class that a message type stands for, empty or out of a received buffer. The caller
/// owns what it is given and deletes it.
///
/// May be called from any thread; a buffer is used by one thread at a time. No operation throws or blocks.
class KYTFER_EXPORT KyTferMsgFactory {
public:
    KyTferMsgFactory() = delete;

    /// A new, empty message of the class for `type`; null for TFER_MSG_NONE, for a number that is no type,
    /// and when memory has run out.
    static KyTferMsg* CreateMsg(KyTferMsg::TferMsgType type);

    /// The message that `buffer` holds, read from the buffer's reading position on, which is the first byte
    /// of a buffer just received; null, with nothing read, where CreateMsg() gives null for the type in the
    /// first four bytes. Null too when memory runs out while it is read.
    ///
    /// @param buffer  never null; stays the caller's
    static KyTferMsg* CreateMsgFromBuffer(KyIpcMsgBuffer* buffer);
};

#endif
