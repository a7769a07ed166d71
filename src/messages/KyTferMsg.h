#ifndef MESSAGES_KYTFERMSG_H
#define MESSAGES_KYTFERMSG_H

#include <string>

#include "messages/KyTferExport.h"

class KyIpcMsgBuffer;

/// A request to the transfer service or a reply from it: the fields that every message carries, and how a
/// message gets into a buffer and out of it.
///
/// Messages live on the heap, are handed over by pointer and are deleted through the virtual destructor. A
/// message has no lock; one thread uses it at a time. No operation blocks.
///
/// On the wire a message is its fields one after the other, those of its bases first; nothing is optional. A
/// message trusts its first field, the type; what the rest of a short or damaged buffer yields is 0 and the
/// empty string.
///
/// A message is an ordinary C++ value: constructors, setters, copies, assignments, Serialize() and
/// Deserialize() throw std::bad_alloc if memory runs out. A message that was being changed is then valid, but
/// holds a mix of old and new fields.
class KYTFER_EXPORT KyTferMsg {
public:
    /// What kind of message this is; the first field on the wire. A received message may hold any other
    /// number.
    enum TferMsgType : int {
        TFER_MSG_NONE = 0,          ///< no message; there is no class for it
        TFER_MSG_GET_DEV_FILE = 1,  ///< KyTferGetDevFile
        TFER_MSG_PUT_DEV_FILE = 2,  ///< KyTferPutDevFile
        TFER_MSG_GET_DEV_DIR = 3,   ///< KyTferGetDevDirMsg
        TFER_MSG_RESP = 4,          ///< KyTferRespMsg
        TFER_MSG_STATUS = 5,        ///< KyTferStatusMsg, as request and as reply
        TFER_MSG_CANCEL_TRANS = 6,  ///< KyTferCancelTransMsg
    };

    /// Copies the base fields of `other`, as Copy does, and writes a notice to the log. Assigning a derived
    /// message through this operator leaves the derived fields as they are.
    virtual KyTferMsg& operator=(const KyTferMsg& other);

    virtual ~KyTferMsg();

    /// Appends the fields to `buffer`, which stays the caller's. Throws std::bad_alloc if the buffer cannot
    /// grow; the buffer then holds a part of the message and must not be sent.
    virtual void Serialize(KyIpcMsgBuffer* buffer);

    /// Takes the fields from `buffer`, from its reading position on; the type read replaces this message's.
    /// Fields that the buffer does not hold become 0 or empty.
    virtual void Deserialize(KyIpcMsgBuffer* buffer);

    /// Copies the base fields of `other`: type, server, caller's context, reply FIFO and transaction. Null
    /// copies nothing.
    virtual void Copy(const KyTferMsg* other);

    /// The type of the serialised message that starts at `bytes`, of which at least four must be readable (a
    /// KyIpcMsgBuffer's always are). Consumes nothing.
    static int PeekMsgType(const unsigned char* bytes);

    /// @{
    /// What kind of message this is: each class sets its own, and Deserialize() what has come.
    TferMsgType GetMsgType() const { return m_msgType; }
    void SetMsgType(TferMsgType type) { m_msgType = type; }
    /// @}

    /// @{
    /// Identifier of the device-side server that the message concerns, carried for the service; 0 in a new
    /// message.
    unsigned short GetSorServerId() const { return m_sorServerId; }
    void SetSorServerId(unsigned short serverId) { m_sorServerId = serverId; }
    /// @}

    /// @{
    /// Identifier of the transaction; in a cancel request, of the one to cancel. Empty in a new message.
    const std::string& GetTransId() const { return m_transId; }
    void SetTransId(const std::string& transId) { m_transId = transId; }
    /// @}

    /// @{
    /// The caller's own context, carried through unchanged. Empty in a new message.
    const std::string& GetCallerContext() const { return m_callerContext; }
    void SetCallerContext(const std::string& context) { m_callerContext = context; }
    /// @}

    /// @{
    /// Name of the FIFO on which the sender waits for the reply. Empty in a new message.
    const std::string& GetRespFifo() const { return m_respFifo; }
    void SetRespFifo(const std::string& fifo) { m_respFifo = fifo; }
    /// @}

protected:
    /// A message with empty fields, whose type the derived class sets. The argument is the expected size of
    /// the serialised message in bytes; it has no effect.
    explicit KyTferMsg(int sizeHint);

    /// Takes over every base field of `other`, the type included.
    KyTferMsg(const KyTferMsg& other);

    /// Exchanges the base fields with `other`.
    void SwapWith(KyTferMsg& other) noexcept;

    /// @{
    /// Appends a field to `buffer`; throws std::bad_alloc if the buffer has not grown by it.
    static void Put(KyIpcMsgBuffer* buffer, int value);
    static void Put(KyIpcMsgBuffer* buffer, const std::string& text);
    /// @}

private:
    TferMsgType m_msgType;
    unsigned short m_sorServerId;
    std::string m_transId;
    std::string m_callerContext;
    std::string m_respFifo;
};

#endif
