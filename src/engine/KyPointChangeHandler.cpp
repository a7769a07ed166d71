#include "engine/KyPointChangeHandler.h"

#include <cstring>

#include "engine/KyNegotiation.h"
#include "engine/KyTferClientConstants.h"
#include "platform/KyDlog.h"

namespace ky_engine {

namespace {

constexpr unsigned int kMaxStringUnits = 256;

// Takes the low byte of each unit, up to the first 0. `units` may be unaligned.
void ConvertString(const void* units, unsigned int valLength, std::string& out) {
    if (valLength > kMaxStringUnits) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "ConvertString",
                        "Parameter valLength(%d) is out of range (>256)", static_cast<int>(valLength));
        return;
    }
    char text[2 * kMaxStringUnits] = {};
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

// Returns false, and the number 0, for a change without a value.
template <typename Number>
bool ReadNumber(const KyValChgInfo& info, Number& number) {
    number = 0;
    if (info.value == nullptr) return false;
    memcpy(&number, info.value, sizeof number);
    return true;
}

}  // namespace

void KyPointChangeHandler::Handle(const KyValChgInfo& info) {
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
}

void KyPointChangeHandler::FileNameChanged(const KyValChgInfo& info) const {
    // A value that is too long to convert is logged as raw bytes.
    std::string text;
    if (info.value != nullptr) text.assign(static_cast<const char*>(info.value), info.valLength);
    ConvertString(info.value, info.valLength, text);
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange", "Xfer file name pnt(%ld) changed(%s)",
                    static_cast<long>(info.pntId), text.c_str());
}

void KyPointChangeHandler::FileSizeChanged(const KyValChgInfo& info) {
    unsigned int size = 0;
    if (!ReadNumber(info, size)) return;
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange", "val_tfer_filesize change pnt(%ld) changed(%d)",
                    static_cast<long>(PNT_XFER_FILE_SIZE), static_cast<int>(size));
    m_record.SetAnnouncedSize(size, m_device.ConsumeEcho(PNT_XFER_FILE_SIZE, std::to_string(size)));
}

void KyPointChangeHandler::DmpSupportedChanged(const KyValChgInfo& info) const {
    unsigned short value = 0;
    if (info.mmIdx != m_members.m_maiMmIdx || !ReadNumber(info, value)) return;
    const bool supported = value != 0;
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange",
                    "st_mai_tfer_hmiDmpSupported pnt(%lu) mmIdx(%u) value changed(%s)",
                    static_cast<unsigned long>(PNT_DMP_SUPPORTED), static_cast<unsigned int>(info.mmIdx),
                    supported ? "true" : "false");
    SetDmpSupported(supported);
}

void KyPointChangeHandler::FileRequestChanged(const KyValChgInfo& info) {
    std::string answer;
    ConvertString(info.value, info.valLength, answer);
    // The card writes the empty text before each value. A device that reports the value also reports the empty text.
    const bool echo = m_cleared && m_device.ConsumeEcho(PNT_CLIENT_FILE_REQ, answer);
    m_cleared = answer.empty();
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange", "Client file req point(%ld) len(%d) newVal(%s)",
                    static_cast<long>(info.pntId), static_cast<int>(answer.size()), answer.c_str());
    if (BeginsWith(answer, "DIR") && answer != kRequestDirectory) {
        __dlog_printfex(KY_DLOG_WARNING, kSource, "DataChange", "Sorrel simulator hack.  Ignore value(%s)",
                        answer.c_str());
        return;
    }
    if (answer == kRequestReady) {
        __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange", "Got ready indicator reqType(%d)",
                        static_cast<int>(m_record.RequestType()));
    }
    std::string& current = m_members.m_currentRequest;
    if (answer == current) {
        __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange", "Current request(%s) prev request(%s) ignore",
                        answer.c_str(), current.c_str());
        return;
    }
    current = answer;
    // The cleared point and the card's own results need no action. They end a sequence of repeats.
    if (answer.empty() || answer == kRequestSuccess || answer == kRequestError) return;
    HandleAnswer(answer, echo);
}

void KyPointChangeHandler::HandleAnswer(const std::string& answer, bool echo) {
    if (!echo && answer != kRequestDirectory && m_record.KeepEarlyAnswer(answer)) return;
    const KyTferStatusMsg::TferRequestType type = m_record.RequestType();
    switch (type) {
        case KyTferStatusMsg::TFER_REQ_DIRECTORY:
            if (!echo) m_directory.HandleAnswer(answer, false);
            break;
        case KyTferStatusMsg::TFER_REQ_GET_FILE:
            if (answer == kRequestReady) m_fetch.Ready();
            break;
        default:
            __dlog_printfex(KY_DLOG_NOTICE, kSource, "DataChange", "Current req type is %d",
                            static_cast<int>(type));
            break;
    }
}

}  // namespace ky_engine
