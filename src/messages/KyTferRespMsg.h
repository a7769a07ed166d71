#ifndef MESSAGES_KYTFERRESPMSG_H
#define MESSAGES_KYTFERRESPMSG_H

#include <string>

#include "messages/KyTferMsg.h"

/// The transfer service's reply to a listing, fetch, push or cancel request: a result code and a text.
class KYTFER_EXPORT KyTferRespMsg : public KyTferMsg {
public:
    /// Result of the request. The transfer service defines all values but 0: tfersvc sends 1 for an accepted
    /// and 2 for a refused request.
    enum TferMsgResult : int {
        TFER_RESULT_NONE = 0,  ///< value of a new reply
    };

    /// A reply with TFER_RESULT_NONE and an empty text. The argument has no effect.
    explicit KyTferRespMsg(int sizeHint);

    /// A copy of every field of `other`, those of the message base included.
    KyTferRespMsg(const KyTferRespMsg& other);

    /// Copies every field, those of the message base included.
    KyTferRespMsg& operator=(const KyTferRespMsg& other);
    ~KyTferRespMsg() override;

    using KyTferMsg::operator=;

    void Serialize(KyIpcMsgBuffer* buffer) override;
    void Deserialize(KyIpcMsgBuffer* buffer) override;

    /// @{
    /// Result of the request; TFER_RESULT_NONE in a new reply.
    TferMsgResult GetResultStatus() const { return m_resultStatus; }
    void SetResultStatus(TferMsgResult result) { m_resultStatus = result; }
    /// @}

    /// @{
    /// Text that explains the result, for a person; for an accepted request, the status message of the record.
    /// May be empty.
    const std::string& GetResultMsg() const { return m_resultMsg; }
    void SetResultMsg(const std::string& text) { m_resultMsg = text; }
    /// @}

private:
    TferMsgResult m_resultStatus;
    std::string m_resultMsg;
};

#endif
