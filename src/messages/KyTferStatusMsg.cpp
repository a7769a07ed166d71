#include "messages/KyTferStatusMsg.h"

#include <utility>

#include "messages/KyJson.h"
#include "platform/KyDlog.h"
#include "platform/KyIpcMsgBuffer.h"
#include "platform/KyIpcMsgUtil.h"

KyTferStatusMsg::KyTferStatusMsg(int sizeHint)
    : KyTferMsg(sizeHint),
      m_status(TFER_STATUS_NONE),
      m_bytesRequested(0),
      m_bytesTransfered(0),
      m_reqType(TFER_REQ_NONE) {
    SetMsgType(TFER_MSG_STATUS);
}

KyTferStatusMsg::KyTferStatusMsg(const KyTferStatusMsg& other) : KyTferStatusMsg(1024) {
    KyTferStatusMsg::Copy(&other);
}

KyTferStatusMsg::KyTferStatusMsg(KyTferStatusMsg&& other) noexcept : KyTferStatusMsg(1024) {
    Swap(other);
}

KyTferStatusMsg::~KyTferStatusMsg() = default;

KyTferStatusMsg& KyTferStatusMsg::operator=(const KyTferStatusMsg& other) {
    Copy(&other);
    return *this;
}

void KyTferStatusMsg::Copy(const KyTferStatusMsg* other) {
    if (other == nullptr) return;
    KyTferMsg::Copy(other);
    m_status = other->m_status;
    SetStatusMsg(other->m_statusMsg);
    m_bytesRequested = other->m_bytesRequested;
    m_bytesTransfered = other->m_bytesTransfered;
    SetOrigFileName(other->m_origFileName);
    SetXferFileName(other->m_xferFileName);
    m_filePath = other->m_filePath;
    m_reqType = other->m_reqType;
}

void KyTferStatusMsg::Swap(KyTferStatusMsg& other) noexcept {
    SwapWith(other);
    std::swap(m_status, other.m_status);
    std::swap(m_bytesRequested, other.m_bytesRequested);
    std::swap(m_bytesTransfered, other.m_bytesTransfered);
    std::swap(m_reqType, other.m_reqType);
    m_filePath.swap(other.m_filePath);
    m_origFileName.swap(other.m_origFileName);
    m_xferFileName.swap(other.m_xferFileName);
    m_statusMsg.swap(other.m_statusMsg);
}

void KyTferStatusMsg::SetFilePath(const std::string& path) {
    m_filePath = path;
    if (m_filePath.empty() || m_filePath.back() != '/') m_filePath += '/';
}

std::string KyTferStatusMsg::GetXferFullFilePath() const {
    return m_filePath + m_xferFileName;
}

unsigned int KyTferStatusMsg::GetPercentComplete() const {
    switch (m_status) {
        case TFER_STATUS_COMPLETE:
        case TFER_STATUS_FAIL:
            return 100;
        case TFER_STATUS_INPROGRESS: {
            if (m_bytesTransfered >= m_bytesRequested) return 100;
            const float quotient =
                static_cast<float>(m_bytesTransfered) / static_cast<float>(m_bytesRequested);
            return static_cast<unsigned int>(static_cast<double>(quotient) * 100.0);
        }
        default:
            return 0;
    }
}

std::string KyTferStatusMsg::GetStatusText(TferStatus status) {
    switch (status) {
        case TFER_STATUS_NONE:
            return "TFER_STATUS_NONE";
        case TFER_STATUS_REQUESTED:
            return "TFER_STATUS_REQUESTED";
        case TFER_STATUS_COMPLETE:
            return "TFER_STATUS_COMPLETE";
        case TFER_STATUS_INPROGRESS:
            return "TFER_STATUS_INPROGRESS";
        case TFER_STATUS_FAIL:
            return "TFER_STATUS_FAIL";
        default:
            return "TFER_STATUS_UNKNOWN";
    }
}

std::string KyTferStatusMsg::GetJsonStatus() const {
    try {
        ky_json::Ref status(json_object());
        ky_json::SetText(status, "tfername", m_xferFileName.c_str());
        ky_json::Set(status, "status", json_integer(static_cast<unsigned int>(m_status)));
        ky_json::SetText(status, "statusStr", GetStatusText(m_status).c_str());
        ky_json::SetText(status, "statusMsg", m_statusMsg.c_str());
        ky_json::Set(status, "progress", json_integer(GetPercentComplete()));

        ky_json::Ref transfers(json_array());
        ky_json::Append(transfers, status.release());

        ky_json::Ref root(json_object());
        ky_json::SetText(root, "context", "none");
        ky_json::Set(root, "fileTferStatus", transfers.release());

        __dlog_printfex(KY_DLOG_TRACE, "KyTferStatusMsg", "GetJsonStatus",
                        "Returning (single line, sorted keys): %s",
                        ky_json::Dump(root, JSON_SORT_KEYS).c_str());
        return ky_json::Dump(root, JSON_INDENT(2) | JSON_SORT_KEYS);
    } catch (...) {
        return std::string();
    }
}

void KyTferStatusMsg::Serialize(KyIpcMsgBuffer* buffer) {
    KyTferMsg::Serialize(buffer);
    Put(buffer, m_status);
    Put(buffer, static_cast<int>(m_bytesRequested));
    Put(buffer, static_cast<int>(m_bytesTransfered));
    Put(buffer, m_origFileName);
    Put(buffer, m_xferFileName);
    Put(buffer, m_filePath);
    Put(buffer, m_statusMsg);
}

void KyTferStatusMsg::Deserialize(KyIpcMsgBuffer* buffer) {
    KyTferMsg::Deserialize(buffer);
    m_status = static_cast<TferStatus>(KyIpcMsgUtil::ExtractInteger(buffer));
    m_bytesRequested = static_cast<unsigned int>(KyIpcMsgUtil::ExtractInteger(buffer));
    m_bytesTransfered = static_cast<unsigned int>(KyIpcMsgUtil::ExtractInteger(buffer));
    KyIpcMsgUtil::ExtractStringParam(buffer, m_origFileName);
    KyIpcMsgUtil::ExtractStringParam(buffer, m_xferFileName);
    KyIpcMsgUtil::ExtractStringParam(buffer, m_filePath);
    KyIpcMsgUtil::ExtractStringParam(buffer, m_statusMsg);
}
