#ifndef MESSAGES_KYTFERMSGFACTORY_H
#define MESSAGES_KYTFERMSGFACTORY_H

#include "messages/KyTferMsg.h"

class KyIpcMsgBuffer;

/// Creates a message of the class for a message type. The caller owns the message and deletes it.
///
/// Any thread may call the operations; one thread uses a buffer at a time. No operation throws or blocks.
class KYTFER_EXPORT KyTferMsgFactory {
public:
    KyTferMsgFactory() = delete;

    /// A new, empty message; null for TFER_MSG_NONE, for a number that is no type, and if memory has run out.
    static KyTferMsg* CreateMsg(KyTferMsg::TferMsgType type);

    /// The message in `buffer`, extracted from the reading position on. The type is read from the first four
    /// bytes. Null, with nothing extracted, if CreateMsg() returns null for the type. Null if memory runs
    /// out.
    ///
    /// @param buffer  just received; not null; the caller owns it
    static KyTferMsg* CreateMsgFromBuffer(KyIpcMsgBuffer* buffer);
};

#endif
