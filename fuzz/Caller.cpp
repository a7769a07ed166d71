#include "fuzz/Caller.h"

#include <fstream>

#include "messages/KyTferGetDevFile.h"
#include "messages/KyTferPutDevFile.h"

using fuzz::Message;
using fuzz::Serialised;

std::string Caller::Stream() {
    std::string stream;
    while (!m_input.Empty() && stream.size() < kMostBytes - 10000) {
        const unsigned kind = m_input.Byte() % 16;
        if (kind == 15) {
            stream += m_input.Text(m_input.Byte());
        } else if (kind == 14) {
            stream += fuzz::FrameOf(m_input.Text(m_input.Byte()));
        } else {
            std::string bytes = Serialised(*Request(kind));
            if (kind == 13) bytes[m_input.Number() % bytes.size()] = static_cast<char>(m_input.Byte());
            stream += fuzz::FrameOf(bytes);
        }
    }
    if (stream.size() > kMostBytes) stream.resize(kMostBytes);
    return stream;
}

Message Caller::Request(unsigned kind) {
    Message request(KyTferMsgFactory::CreateMsg(static_cast<KyTferMsg::TferMsgType>(1 + kind % 6)));
    static const char* const kFifos[] = {"r0", "r0", "r0", "r1", "nobody's", "tfersvc-CtrlFifo", "../r0", ""};
    request->SetRespFifo(kFifos[m_input.Byte() % 8]);
    request->SetCallerContext(std::to_string(m_requests++));
    request->SetTransId(m_input.Text(m_input.Byte() % 8));
    request->SetSorServerId(static_cast<unsigned short>(m_input.Byte()));
    if (auto* const fetch = dynamic_cast<KyTferGetDevFile*>(request.get())) {
        fetch->SetXferFileName(Name());
        fetch->SetXferFileSize(static_cast<int>(m_input.Byte() % 4 == 0 ? m_input.Number() : 10));
    } else if (auto* const push = dynamic_cast<KyTferPutDevFile*>(request.get())) {
        const unsigned where = m_input.Byte();
        const std::string path = (where % 8 == 7 ? "" : std::string(kOutgoing) + "/") + Name();
        if (where % 2 == 0) std::ofstream(path) << "pushed";
        push->SetSrcPath(path);
    }
    return request;
}

std::string Caller::Name() {
    static const char* const kNames[] = {"f", "empty", "../f", "..", "a/b", "none"};
    const unsigned form = m_input.Byte();
    return form < 192 ? kNames[form % 6] : m_input.Text(form % 32);
}

Counts Caller::DueReplies(const std::string& stream, size_t& requests) {
    Counts due;
    KyIpcFrameDecoder decoder;
    for (size_t taken = 0; taken < stream.size();) {
        taken += decoder.Feed(reinterpret_cast<const unsigned char*>(stream.data()) + taken,
                              stream.size() - taken);
        if (!decoder.IsWhole()) continue;
        std::string bytes = fuzz::BytesOf(decoder.Message());
        const Message message = fuzz::MessageIn(bytes);
        if (!message || message->GetMsgType() == KyTferMsg::TFER_MSG_RESP || bytes.size() < 8) continue;
        bytes[6] = bytes[7] = 0;  // the upper half of the server identifier is ignored
        if (Serialised(*message) != bytes) continue;
        ++requests;
        const std::string& fifo = message->GetRespFifo();
        if (fifo == "r0" || fifo == "r1") ++due[{fifo, message->GetCallerContext()}];
    }
    return due;
}
