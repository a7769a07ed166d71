#ifndef MESSAGES_KYTFERRESPMSG_H
#define MESSAGES_KYTFERRESPMSG_H

#include <string>

#include "messages/KyTferMsg.h"

/// The transfer service's reply to a request for a directory, a fetch or a push: a result code and a text.
class KYTFER_EXPORT KyTferRespMsg : public KyTferMsg {
public:
    /// Outcome of the request. Only 0 is the library's; the transfer service gives out the other values.
    enum TferMsgResult : int {
        TFER_RESULT_NONE = 0,  ///< what a new reply holds
    };

    /// A reply with TFER_RESULT_NONE and an empty text. The argument is handed to KyTferMsg and has no
    /// effect.
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
    /// TFER_RESULT_NONE until it is set.
    TferMsgResult GetResultStatus() const { return m_resultStatus; }
    void SetResultStatus(TferMsgResult result) { m_resultStatus = result; }
    /// @}

    /// @{
    /// Text that explains the outcome.
    const std::string& GetResultMsg() const { return m_resultMsg; }
    void SetResultMsg(const std::string& text) { m_resultMsg = text; }
    /// @}

private:
    TferMsgResult m_resultStatus;
    std::string m_resultMsg;
};

#endif
