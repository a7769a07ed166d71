#include "client/TferSvcMsgClient.h"

#include <unistd.h>

#include <exception>
#include <new>

#include "messages/KyServiceContract.h"
#include "messages/KyTferGetDevDirMsg.h"
#include "messages/KyTferGetDevFile.h"
#include "messages/KyTferMsgFactory.h"
#include "messages/KyTferPutDevFile.h"
#include "messages/KyTferRespMsg.h"
#include "messages/KyTferStatusMsg.h"
#include "platform/KyDlog.h"
#include "platform/KyIpcFifoSession.h"
#include "platform/KyIpcMsgBuffer.h"

using ky_service::kControlFifo;

namespace {

constexpr char kSource[] = "TferSvcMsgClient";

void Trace(const char* checkPoint) {
    __dlog_printfex(KY_DLOG_TRACE, kSource, "DoRequest", "%s", checkPoint);
}

/// Returns the result of `make`, or null, with an error in the log, if `make` throws.
template <typename Make>
auto OrNull(const char* function, Make make) -> decltype(make()) {
    try {
        return make();
    } catch (const std::exception& failure) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, function, "Request given up: %s", failure.what());
    } catch (...) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, function, "Request given up: unknown exception");
    }
    return nullptr;
}

/// Returns the reply if it is a response; otherwise deletes it and returns null.
KyTferRespMsg* Narrow(KyTferMsg* reply) {
    auto* const response = dynamic_cast<KyTferRespMsg*>(reply);
    if (response == nullptr) delete reply;
    return response;
}

}  // namespace

TferSvcMsgClient* TferSvcMsgClient::GetInstance() {
    return OrNull("GetInstance", [] {
        static TferSvcMsgClient s_client;
        return &s_client;
    });
}

TferSvcMsgClient::TferSvcMsgClient() : m_clientName(ky_service::CallerSession(getpid())) {}

TferSvcMsgClient::~TferSvcMsgClient() {
    EndSession();
}

KyTferMsg* TferSvcMsgClient::DoRequest(KyTferMsg* request) {
    Trace("CP#1");
    std::unique_ptr<KyTferMsg> owned(request);
    KyTferMsg* const reply = OrNull("DoRequest", [&] { return RoundTrip(*owned); });
    EndSession();
    owned.reset();
    Trace("CP#2");
    return reply;
}

KyTferMsg* TferSvcMsgClient::RoundTrip(KyTferMsg& request) {
    m_session =
        std::make_unique<KyIpcFifoSession>(m_clientName.c_str(), KyIpcFifoSession::IPC_CLOSE_NO_CONFIRM);
    const std::string replyFifo = ky_service::ReplyFifo(m_clientName);
    if (!OpenFifos(replyFifo) || !Send(request, replyFifo)) return nullptr;
    return Receive(replyFifo);
}

/// Opens the reply FIFO first: the service may reply as soon as it has the request.
bool TferSvcMsgClient::OpenFifos(const std::string& replyFifo) {
    __dlog_printfex(KY_DLOG_TRACE, kSource, "DoRequest", "Open read FIFO(%s) for Client(%s)",
                    replyFifo.c_str(), m_clientName.c_str());
    int status = m_session->OpenReadFifo(replyFifo.c_str(), ky_service::kReplyFifoMode);
    if (status != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "DoRequest",
                        "Failed to open read FIFO: %s, for session: %s, session status: %d",
                        replyFifo.c_str(), m_clientName.c_str(), status);
        return false;
    }
    __dlog_printfex(KY_DLOG_TRACE, kSource, "DoRequest",
                    "CP#1.1 Opened read FIFO: %s, for session: %s, session status: %d", replyFifo.c_str(),
                    m_clientName.c_str(), status);
    status = m_session->OpenCtrlFifo(kControlFifo);
    if (status != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "DoRequest",
                        "Failed to open control FIFO: %s, for session: %s, session status: %d", kControlFifo,
                        m_clientName.c_str(), status);
    }
    return status == 0;
}

bool TferSvcMsgClient::Send(KyTferMsg& request, const std::string& replyFifo) {
    __dlog_printfex(KY_DLOG_TRACE, kSource, "DoRequest", "Send msg to server with return fifo(%s)",
                    replyFifo.c_str());
    KyIpcMsgBuffer buffer(1024);
    request.SetRespFifo(replyFifo);
    request.Serialize(&buffer);
    Trace("CP#1.2");
    const int status =
        m_session->WriteCtrl(reinterpret_cast<const char*>(buffer.GetBuf()), buffer.GetLength());
    if (status != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "DoRequest",
                        "Failed to write to control FIFO: %s, for session: %s, session status: %d",
                        kControlFifo, m_clientName.c_str(), status);
    }
    return status == 0;
}

KyTferMsg* TferSvcMsgClient::Receive(const std::string& replyFifo) {
    KyIpcMsgBuffer buffer(200);
    __dlog_printfex(KY_DLOG_TRACE, kSource, "DoRequest", "Read the read FIFO(%s) waiting for a response",
                    replyFifo.c_str());
    const int status = m_session->Read(&buffer, ky_service::kReplyTimeOutMs);
    if (status == KyIpcFifoSession::IPC_TIMEOUT) {
        // The text names 30 seconds, though the wait is 60: log searches depend on the text.
        __dlog_printfex(KY_DLOG_ERROR, kSource, "DoRequest",
                        "Timeout from server for session: %s, exceeded 30 seconds bytes in buf(%d)",
                        m_clientName.c_str(), buffer.GetLength());
        return nullptr;
    }
    if (status != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "DoRequest",
                        "No response from server for session: %s, session status: %d", m_clientName.c_str(),
                        status);
        return nullptr;
    }
    Trace("CP#1.3");
    return KyTferMsgFactory::CreateMsgFromBuffer(&buffer);
}

void TferSvcMsgClient::EndSession() {
    if (!m_session) return;
    m_session->Close();
    m_session.reset();
}

KyTferMsg* TferSvcMsgClient::GetStatus() {
    return OrNull("GetStatus", [&] { return DoRequest(new KyTferStatusMsg(512)); });
}

void TferSvcMsgClient::CancelTransaction(const std::string& transId) {
    delete OrNull("CancelTransaction", [&]() -> KyTferMsg* {
        std::unique_ptr<KyTferMsg> request(KyTferMsgFactory::CreateMsg(KyTferMsg::TFER_MSG_CANCEL_TRANS));
        if (!request) throw std::bad_alloc();
        request->SetTransId(transId);
        return DoRequest(request.release());
    });
}

KyTferRespMsg* TferSvcMsgClient::GetDevDirectory() {
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "GetDevDirectory", "Enter - requesting directory");
    return OrNull("GetDevDirectory", [&] { return Narrow(DoRequest(new KyTferGetDevDirMsg(512))); });
}

KyTferRespMsg* TferSvcMsgClient::PutDevFile(const std::string& srcPath) {
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "PutDevFile", "Enter - requesting file(%s)", srcPath.c_str());
    return OrNull("PutDevFile", [&] {
        auto request = std::make_unique<KyTferPutDevFile>(1024);
        request->SetSrcPath(srcPath);
        return Narrow(DoRequest(request.release()));
    });
}

KyTferRespMsg* TferSvcMsgClient::GetDevFile(const std::string& transferName, const std::string& /*unused*/,
                                            unsigned int fileSize) {
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "GetDevFile", "Enter - requesting file(%s)",
                    transferName.c_str());
    return OrNull("GetDevFile", [&] {
        auto request = std::make_unique<KyTferGetDevFile>(1024);
        request->SetXferFileName(transferName);
        request->SetXferFileSize(static_cast<int>(fileSize));
        return Narrow(DoRequest(request.release()));
    });
}
