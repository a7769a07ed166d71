#ifndef MESSAGES_KYTFERSTATUSMSG_H
#define MESSAGES_KYTFERSTATUSMSG_H

#include <string>

#include "messages/KyTferMsg.h"

/// The status record of a transaction: its file, its progress and its result. The engine keeps one record and
/// returns copies. An empty record is the request for the status; the transfer service replies with the
/// engine's record.
///
/// The engine's record has TFER_STATUS_NONE until the first transaction. A transaction goes from
/// TFER_STATUS_INPROGRESS to TFER_STATUS_COMPLETE or TFER_STATUS_FAIL. Neither is always final. A fetched file
/// is in its place only when the file path is the download directory, too. A failed fetch or listing can return
/// to TFER_STATUS_INPROGRESS until its time limit. A push in progress and a fetch overwrite each other's
/// updates.
class KYTFER_EXPORT KyTferStatusMsg : public KyTferMsg {
public:
    /// State of the transaction. A received record may hold any other number.
    enum TferStatus : int {
        TFER_STATUS_NONE = 0,        ///< there has been no transaction yet
        TFER_STATUS_REQUESTED = 1,   ///< not used by the engine
        TFER_STATUS_COMPLETE = 2,    ///< the file is complete; see the class comment
        TFER_STATUS_INPROGRESS = 3,  ///< in progress; further fetches and listings are refused
        TFER_STATUS_FAIL = 4,        ///< failed or cancelled; the status message has the reason
    };

    /// Kind of transaction. A push does not change it.
    enum TferRequestType : int {
        TFER_REQ_NONE = 0,       ///< none yet, cancelled, or a listing that could not be requested
        TFER_REQ_DIRECTORY = 1,  ///< the device's listing
        TFER_REQ_GET_FILE = 2,   ///< a file of the device
    };

    /// A record with TFER_STATUS_NONE, TFER_REQ_NONE, counts of 0 and empty texts. The argument has no
    /// effect.
    explicit KyTferStatusMsg(int sizeHint);

    /// A copy of every field of `other`, those of the message base included.
    KyTferStatusMsg(const KyTferStatusMsg& other);

    /// Moves every field from `other`, which then equals a new message.
    KyTferStatusMsg(KyTferStatusMsg&& other) noexcept;
    ~KyTferStatusMsg() override;

    /// Serialises all fields but the kind of transaction.
    void Serialize(KyIpcMsgBuffer* buffer) override;

    /// Extracts the fields. The file path is not changed; the kind of transaction is not on the wire and
    /// keeps its value.
    void Deserialize(KyIpcMsgBuffer* buffer) override;

    using KyTferMsg::operator=;
    using KyTferMsg::Copy;

    /// Copies every field, those of the message base included.
    virtual KyTferStatusMsg& operator=(const KyTferStatusMsg& other);

    /// Copies every field of `other`, those of the message base included. Null copies nothing.
    virtual void Copy(const KyTferStatusMsg* other);

    /// Exchanges every field with `other`, without allocating.
    void Swap(KyTferStatusMsg& other) noexcept;

    /// @{
    /// State of the transaction. Any number is allowed.
    TferStatus GetStatus() const { return m_status; }
    void SetStatus(TferStatus status) { m_status = status; }
    /// @}

    /// @{
    /// Kind of transaction. It is not on the wire.
    TferRequestType GetReqType() const { return m_reqType; }
    void SetReqType(TferRequestType type) { m_reqType = type; }
    /// @}

    /// @{
    /// Number of bytes that the transaction is to move. In the engine's record, 0 after a fetch if the device
    /// reports the card's final 0 to the file size point.
    unsigned int GetBytesRequested() const { return m_bytesRequested; }
    void SetBytesRequested(unsigned int bytes) { m_bytesRequested = bytes; }
    /// @}

    /// @{
    /// Number of bytes moved so far. In the engine's record: the count of the previous transaction until a
    /// fetched file begins to arrive, and during a push; the expected size after a worker has failed.
    unsigned int GetBytesTransfered() const { return m_bytesTransfered; }
    void SetBytesTransfered(unsigned int bytes) { m_bytesTransfered = bytes; }
    /// @}

    /// @{
    /// Text that explains the status, for a person.
    const std::string& GetStatusMsg() const { return m_statusMsg; }
    void SetStatusMsg(const std::string& text) { m_statusMsg = text; }

    /// Swaps the status text with `text`, without allocating.
    void SetStatusMsg(std::string&& text) noexcept { m_statusMsg.swap(text); }
    /// @}

    /// @{
    /// The file's name on the card for a push, "DIRREQ" for a listing. A fetch does not change it.
    const std::string& GetOrigFileName() const { return m_origFileName; }
    void SetOrigFileName(const std::string& name) { m_origFileName = name; }
    /// @}

    /// @{
    /// The transfer name: the name of the file in requests and, for a fetch, on the card. "DIRREQ" for a
    /// listing until the device has named the listing file.
    const std::string& GetXferFileName() const { return m_xferFileName; }
    void SetXferFileName(const std::string& name) { m_xferFileName = name; }
    /// @}

    /// Directory of the file on the card: the landing directory during a fetch, then the download directory; the
    /// staging directory for a push. Empty in a new message, otherwise with a "/" at the end.
    const std::string& GetFilePath() const { return m_filePath; }

    /// Sets the directory, and appends "/" unless it ends with one; the empty path becomes "/".
    void SetFilePath(const std::string& path);

    /// The file path followed by the transfer name. Throws std::bad_alloc if memory has run out.
    std::string GetXferFullFilePath() const;

    /// Progress, 0 to 100: 100 for a transaction that has ended, with success or not, and for one in progress
    /// that has moved at least the requested bytes (also 0 of 0); 0 for any other state. The quotient is
    /// computed in single precision and truncated, as the card's displays show it: 29 of 100 bytes give 28.
    unsigned int GetPercentComplete() const;

    /// The name of a status; "TFER_STATUS_UNKNOWN" for other numbers. Throws std::bad_alloc if memory has run
    /// out.
    static std::string GetStatusText(TferStatus status);

    /// Transfer name, status, status message and percentage as a JSON document of several lines, with sorted
    /// keys and no final line end. Other fields are not in the document. Texts that are not valid UTF-8 are
    /// missing. Returns the empty string if memory has run out; never throws.
    std::string GetJsonStatus() const;

private:
    TferStatus m_status;
    unsigned int m_bytesRequested;
    unsigned int m_bytesTransfered;
    TferRequestType m_reqType;
    std::string m_filePath;
    std::string m_origFileName;
    std::string m_xferFileName;
    std::string m_statusMsg;
};

#endif
