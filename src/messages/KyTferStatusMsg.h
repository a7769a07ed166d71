#ifndef MESSAGES_KYTFERSTATUSMSG_H
#define MESSAGES_KYTFERSTATUSMSG_H

#include <string>

#include "messages/KyTferMsg.h"

/// The status record of a transfer: what moves, how far it is, and how it ended. The engine keeps one and
/// hands out copies; the transfer service sends one as the reply to a status request, and an empty one is
/// that request.
///
/// A transaction goes from TFER_STATUS_NONE through TFER_STATUS_INPROGRESS to TFER_STATUS_COMPLETE or
/// TFER_STATUS_FAIL; a later transaction starts at TFER_STATUS_INPROGRESS again.
class KYTFER_EXPORT KyTferStatusMsg : public KyTferMsg {
public:
    /// State of the transaction. A received record may hold any other number.
    enum TferStatus : int {
        TFER_STATUS_NONE = 0,        ///< there has been no transaction yet
        TFER_STATUS_REQUESTED = 1,   ///< not used by the engine
        TFER_STATUS_COMPLETE = 2,    ///< ended well
        TFER_STATUS_INPROGRESS = 3,  ///< under way; fetches and listings are refused meanwhile
        TFER_STATUS_FAIL = 4,        ///< ended otherwise, as the status message says
    };

    /// Kind of transaction. A push leaves the kind that was there before it.
    enum TferRequestType : int {
        TFER_REQ_NONE = 0,       ///< none yet, or a listing that the device did not take the request for
        TFER_REQ_DIRECTORY = 1,  ///< the device's listing
        TFER_REQ_GET_FILE = 2,   ///< a file of the device
    };

    /// A record with TFER_STATUS_NONE, TFER_REQ_NONE, counts of 0 and empty texts. The argument is handed to
    /// KyTferMsg and has no effect.
    explicit KyTferStatusMsg(int sizeHint);

    /// A copy of every field of `other`, those of the message base included.
    KyTferStatusMsg(const KyTferStatusMsg& other);

    /// Takes every field from `other`, which is a new message afterwards. Does not throw.
    KyTferStatusMsg(KyTferStatusMsg&& other) noexcept;
    ~KyTferStatusMsg() override;

    /// Writes the fields of the wire; the kind of transaction is not among them.
    void Serialize(KyIpcMsgBuffer* buffer) override;

    /// Takes the fields from the wire. The file path is taken as it stands; the kind of transaction is not on
    /// the wire and stays what it is.
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
    /// Any number is kept, also one that is no TferStatus.
    TferStatus GetStatus() const { return m_status; }
    void SetStatus(TferStatus status) { m_status = status; }
    /// @}

    /// @{
    /// Kind of transaction. It stays on this side: the wire does not have it.
    TferRequestType GetReqType() const { return m_reqType; }
    void SetReqType(TferRequestType type) { m_reqType = type; }
    /// @}

    /// @{
    /// Number of bytes that the transaction is to move.
    unsigned int GetBytesRequested() const { return m_bytesRequested; }
    void SetBytesRequested(unsigned int bytes) { m_bytesRequested = bytes; }
    /// @}

    /// @{
    /// Number of bytes moved so far.
    unsigned int GetBytesTransfered() const { return m_bytesTransfered; }
    void SetBytesTransfered(unsigned int bytes) { m_bytesTransfered = bytes; }
    /// @}

    /// @{
    /// Text that explains the status, for a person.
    const std::string& GetStatusMsg() const { return m_statusMsg; }
    void SetStatusMsg(const std::string& text) { m_statusMsg = text; }

    /// The same without allocating: takes over the text's memory and leaves the old status text in `text`.
    void SetStatusMsg(std::string&& text) noexcept { m_statusMsg.swap(text); }
    /// @}

    /// @{
    /// The file's name as the requester knows it.
    const std::string& GetOrigFileName() const { return m_origFileName; }
    void SetOrigFileName(const std::string& name) { m_origFileName = name; }
    /// @}

    /// @{
    /// The file's name on the way between card and device.
    const std::string& GetXferFileName() const { return m_xferFileName; }
    void SetXferFileName(const std::string& name) { m_xferFileName = name; }
    /// @}

    /// Directory of the file on the card; ends with "/" once it has been set.
    const std::string& GetFilePath() const { return m_filePath; }

    /// Stores the path, with a "/" added unless it ends with one; the empty path becomes "/".
    void SetFilePath(const std::string& path);

    /// The file path followed directly by the transfer file name. Throws std::bad_alloc if memory has run
    /// out.
    std::string GetXferFullFilePath() const;

    /// How far the transaction is, 0 to 100: 100 for one that has ended, well or not, and for one in progress
    /// that has moved at least what it is to move (0 of 0 too); 0 for any other state. The quotient is taken
    /// in single precision, as the card's displays have always shown it, and cut off: 29 of 100 bytes are 28.
    unsigned int GetPercentComplete() const;

    /// The name of a status, "TFER_STATUS_UNKNOWN" for a number that is none. Throws std::bad_alloc if memory
    /// has run out.
    static std::string GetStatusText(TferStatus status);

    /// The record as a JSON document of several lines with sorted keys and no final line end. A text that is
    /// not valid UTF-8 is missing from it. Never throws; the empty string if memory has run out.
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
