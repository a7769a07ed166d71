#ifndef MESSAGES_KYTFERMSG_H
#define MESSAGES_KYTFERMSG_H

#include <string>

#include "messages/KyTferExport.h"

class KyIpcMsgBuffer;

/// Base of the requests to the transfer service and its replies: the fields of every message, and
/// serialisation.
///
/// Messages are allocated on the heap, passed by pointer and deleted through the virtual destructor. A
/// message has no lock; one thread uses it at a time. No operation blocks.
///
/// On the wire, a message is the sequence of its fields, those of its bases first; no field is optional. The
/// first field is the type; Deserialize() does not check that it is the type of the class. Fields that are
/// missing in a short or damaged buffer become 0 or empty.
///
/// Constructors, setters, copies, assignments, Serialize() and Deserialize() throw std::bad_alloc if memory
/// runs out. A message that was being changed is then valid, with a mix of old and new fields.
class KYTFER_EXPORT KyTferMsg {
public:
    /// Type of the message; the first field on the wire. A received message may hold any other number.
    enum TferMsgType : int {
        TFER_MSG_NONE = 0,          ///< no message: no class has this type
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

    /// Appends the fields to `buffer`, which the caller owns. Throws std::bad_alloc if the buffer cannot
    /// grow; the buffer then holds a part of the message and must not be sent.
    virtual void Serialize(KyIpcMsgBuffer* buffer);

    /// Extracts the fields, with the type, from the reading position of `buffer` on. The caller owns
    /// `buffer`. Fields that the buffer does not hold become 0 or empty.
    virtual void Deserialize(KyIpcMsgBuffer* buffer);

    /// Copies the base fields of `other`: type, server identifier, caller's context, reply FIFO and
    /// transaction identifier. Null copies nothing.
    virtual void Copy(const KyTferMsg* other);

    /// The type of the serialised message at `bytes`, of which at least four must be readable (as in every
    /// KyIpcMsgBuffer).
    static int PeekMsgType(const unsigned char* bytes);

    /// @{
    /// Type of the message: the class sets it, and Deserialize() replaces it.
    TferMsgType GetMsgType() const { return m_msgType; }
    void SetMsgType(TferMsgType type) { m_msgType = type; }
    /// @}

    /// @{
    /// Identifier of the server on the device's side; 0 in a new message. The service returns it in the reply;
    /// the library does not use it otherwise. The 32 bits of this field on the wire are cut to the low 16.
    unsigned short GetSorServerId() const { return m_sorServerId; }
    void SetSorServerId(unsigned short serverId) { m_sorServerId = serverId; }
    /// @}

    /// @{
    /// Identifier of the transaction, any text that the caller chooses; the reply returns it. In a cancel
    /// request: the identifier of the transaction to cancel; empty for any. Empty in a new message.
    const std::string& GetTransId() const { return m_transId; }
    void SetTransId(const std::string& transId) { m_transId = transId; }
    /// @}

    /// @{
    /// The caller's own context, which the reply returns unchanged. Empty in a new message.
    const std::string& GetCallerContext() const { return m_callerContext; }
    void SetCallerContext(const std::string& context) { m_callerContext = context; }
    /// @}

    /// @{
    /// Name, without a directory, of the FIFO from which the sender reads the reply. TferSvcMsgClient sets it.
    /// Empty in a new message.
    const std::string& GetRespFifo() const { return m_respFifo; }
    void SetRespFifo(const std::string& fifo) { m_respFifo = fifo; }
    /// @}

protected:
    /// A message with empty fields. The derived class sets the type. The argument, the expected size of the
    /// serialised message in bytes, has no effect.
    explicit KyTferMsg(int sizeHint);

    /// Copies every base field of `other`, with the type.
    KyTferMsg(const KyTferMsg& other);

    /// Exchanges the base fields with `other`.
    void SwapWith(KyTferMsg& other) noexcept;

    /// @{
    /// Appends a field to `buffer`; throws std::bad_alloc if the buffer cannot grow.
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
