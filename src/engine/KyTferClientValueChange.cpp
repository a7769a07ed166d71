// Value changes: what the engine makes of the changes of the device's points.
#include <cstring>

#include "engine/KyTferClient.h"
#include "engine/KyTferClientConstants.h"
#include "platform/KyDlog.h"

using namespace ky_engine;

namespace {

constexpr unsigned int kLongestString = 256;

// Takes the low byte of each unit, up to the first that is 0. The units may stand at any address.
void ConvertString(const void* units, unsigned int valLength, std::string& out) {
    if (valLength > kLongestString) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "ConvertString",
                        "Parameter valLength(%d) is out of range (>256)", static_cast<int>(valLength));
        return;
    }
    char text[2 * kLongestString] = {};
    const auto* bytes = static_cast<const unsigned char*>(units);
    for (unsigned int i = 0; i < valLength && bytes != nullptr; ++i) {
        unsigned short unit = 0;
        memcpy(&unit, bytes + i * sizeof unit, sizeof unit);
        if ((unit & 0xFF) == 0) break;
        text[i] = static_cast<char>(unit & 0xFF);
    }
    out = text;
}

bool BeginsWith(const std::string& text, const char* start) {
    return text.compare(0, strlen(start), start) == 0;
}

// False, and the number 0, for a record without a value.
template <typename Number>
bool TakeNumber(const KyValChgInfo& info, Number& number) {
    number = 0;
    if (info.value == nullptr) return false;
    memcpy(&number, info.value, sizeof number);
    return true;
}

}  // namespace

void KyTferClient::DataChange(const KyValChgInfo& info) {
    try {
        switch (info.pntId) {
            case PNT_XFER_FILE_NAME:
                return FileNameChanged(info);
            case PNT_XFER_FILE_SIZE:
                return FileSizeChanged(info);
            case PNT_DMP_SUPPORTED:
                return DmpSupportedChanged(info);
            case PNT_CLIENT_FILE_REQ:
                return FileRequestChanged(info);
            default:
                return;
        }
    } catch (...) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "DataChange", "%s", kOutOfMemory);
        EndUnwatched();
    }
}

void KyTferClient::FileNameChanged(const KyValChgInfo& info) {
    // The log shows the raw bytes of a value that is too long to convert.
    std::string text;
    if (info.value != nullptr) text.assign(static_cast<const char*>(info.value), info.valLength);
    ConvertString(info.value, info.valLength, text);
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange", "Xfer file name pnt(%ld) changed(%s)",
                    static_cast<long>(info.pntId), text.c_str());
}

void KyTferClient::FileSizeChanged(const KyValChgInfo& info) {
    unsigned int size = 0;
    if (!TakeNumber(info, size)) return;
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange", "val_tfer_filesize change pnt(%ld) changed(%d)",
                    static_cast<long>(PNT_XFER_FILE_SIZE), static_cast<int>(size));
    KyRequestLock lock(m_requestMutex);
    m_xferFileSize = size;
    m_status.SetBytesRequested(size);
}

void KyTferClient::DmpSupportedChanged(const KyValChgInfo& info) {
    unsigned short value = 0;
    if (info.mmIdx != m_maiMmIdx || !TakeNumber(info, value)) return;
    const bool supported = value != 0;
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange",
                    "st_mai_tfer_hmiDmpSupported pnt(%lu) mmIdx(%u) value changed(%s)",
                    static_cast<unsigned long>(PNT_DMP_SUPPORTED), static_cast<unsigned int>(info.mmIdx),
                    supported ? "true" : "false");
    SetDmpSupported(supported);
}

void KyTferClient::FileRequestChanged(const KyValChgInfo& info) {
    std::string answer;
    ConvertString(info.value, info.valLength, answer);
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange", "Client file req point(%ld) len(%d) newVal(%s)",
                    static_cast<long>(info.pntId), static_cast<int>(answer.size()), answer.c_str());
    if (BeginsWith(answer, "DIR") && answer != kRequestDirectory) {
        __dlog_printfex(KY_DLOG_WARNING, kSource, "DataChange", "Sorrel simulator hack.  Ignore value(%s)",
                        answer.c_str());
        return;
    }
    if (answer == kRequestReady) {
        __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange", "Got ready indicator reqType(%d)",
                        static_cast<int>(m_requestType.load()));
    }
    if (answer == m_currentRequest) {
        __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange", "Current request(%s) prev request(%s) ignore",
                        answer.c_str(), m_currentRequest.c_str());
        return;
    }
    m_currentRequest = answer;
    // The card's own outcomes and the cleared point need no action, but they do end a row of repeats.
    if (answer.empty() || answer == kRequestSuccess || answer == kRequestError) return;
    ActOnAnswer(answer);
}

void KyTferClient::ActOnAnswer(const std::string& answer) {
    KyTferStatusMsg::TferRequestType type = KyTferStatusMsg::TFER_REQ_NONE;
    unsigned long long transaction = 0;
    {
        KyRequestLock lock(m_requestMutex);
        type = m_status.GetReqType();
        transaction = m_transaction;
    }
    switch (type) {
        case KyTferStatusMsg::TFER_REQ_DIRECTORY:
            DirectoryAnswered(answer, transaction);
            break;
        case KyTferStatusMsg::TFER_REQ_GET_FILE:
            if (answer != kRequestReady) break;
            __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange", "kick off file fetch thread");
            StartFetchWorker(transaction, m_fileFetchThread);
            break;
        default:
            __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange", "Current req type is %d",
                            static_cast<int>(type));
            break;
    }
}

void KyTferClient::DirectoryAnswered(const std::string& answer, unsigned long long transaction) {
    if (answer == kRequestDirectory) return;
    if (answer == kRequestNone) {
        KyRequestLock lock(m_requestMutex);
        if (IsCurrent(transaction)) m_transactionActive = false;
        return;
    }
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange", "Fetch the directory file(%s)", answer.c_str());
    {
        KyRequestLock lock(m_requestMutex);
        // The request that asked for this name may have ended, and the next one begun, since it was looked
        // up.
        if (!IsCurrent(transaction)) return;
        m_xferFileName = answer;
        KyTferStatusMsg next(m_status);
        next.SetXferFileName(answer);
        Keep(next);
        m_status.SetBytesRequested(m_xferFileSize);
    }
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange", "Kick off thread to fetch the directory file(%s)",
                    answer.c_str());
    StartFetchWorker(transaction, m_dirFileFetchThread);
}
