#include "tferctl/Service.h"

#include <unistd.h>

#include "messages/KyTferMsgFactory.h"
#include "platform/KyIpcFifoSession.h"
#include "tferctl/ExitStatus.h"

namespace ky_tferctl {
namespace {

constexpr char s_controlFifo[] = "tfersvc-CtrlFifo";
constexpr auto s_accepted = static_cast<KyTferRespMsg::TferMsgResult>(1);
constexpr auto s_answerBound = std::chrono::seconds(60);  // the client's
constexpr auto s_slack = std::chrono::seconds(1);

KyTferMsg* RequestCancel(TferSvcMsgClient& client, const std::string& id) {
    std::unique_ptr<KyTferMsg> request(KyTferMsgFactory::CreateMsg(KyTferMsg::TFER_MSG_CANCEL_TRANS));
    if (!request) return nullptr;
    request->SetTransId(id);
    return client.DoRequest(request.release());
}

/// Whether a service reads requests at this moment. @return a KyIpcFifoSession::IpcStatus
int Probe() {
    KyIpcFifoSession session("tferctl", KyIpcFifoSession::IPC_CLOSE_NO_CONFIRM);
    return session.OpenCtrlFifo(s_controlFifo);
}

}  // namespace

KyTferStatusMsg Service::Status() {
    const std::unique_ptr<KyTferMsg> reply = Ask([](TferSvcMsgClient& client) { return client.GetStatus(); });
    const auto* const record = dynamic_cast<const KyTferStatusMsg*>(reply.get());
    if (record == nullptr)
        throw Failure(ExitStatus::FAILED,
                      "The transfer service answered with something else than its status.");
    return *record;
}

Answer Service::FetchListing() {
    return AskForAnswer([](TferSvcMsgClient& client) { return client.GetDevDirectory(); });
}

Answer Service::Fetch(const std::string& transferName, unsigned int size) {
    return AskForAnswer([&](TferSvcMsgClient& client) { return client.GetDevFile(transferName, "", size); });
}

Answer Service::Push(const std::string& path) {
    return AskForAnswer([&](TferSvcMsgClient& client) { return client.PutDevFile(path); });
}

// Not by the client's own operation, which keeps the answer to itself.
Answer Service::Cancel(const std::string& id) {
    return AskForAnswer([&](TferSvcMsgClient& client) { return RequestCancel(client, id); });
}

std::string Service::ReplyFifo() {
    return "TferSvcClnt-" + std::to_string(static_cast<unsigned int>(getpid())) + "-ClntRxFifo";
}

std::unique_ptr<KyTferMsg> Service::Ask(const Request& request) {
    const Clock::time_point start = m_now();
    TferSvcMsgClient* const client = TferSvcMsgClient::GetInstance();
    if (client == nullptr) throw std::bad_alloc();
    std::unique_ptr<KyTferMsg> reply(request(*client));
    if (!reply) ExplainSilence(start);
    return reply;
}

Answer Service::AskForAnswer(const Request& request) {
    const std::unique_ptr<KyTferMsg> reply = Ask(request);
    const auto* const response = dynamic_cast<const KyTferRespMsg*>(reply.get());
    if (response == nullptr)
        throw Failure(ExitStatus::FAILED, "The transfer service answered with something else than a result.");
    return {response->GetResultStatus() == s_accepted, response->GetResultMsg()};
}

// The client says only that there was no answer.
void Service::ExplainSilence(Clock::time_point start) const {
    const int status = Probe();
    if (status == KyIpcFifoSession::IPC_NO_FIFO || status == KyIpcFifoSession::IPC_NO_READER)
        throw Failure(ExitStatus::NO_SERVICE, "No transfer service is running.");
    if (status != KyIpcFifoSession::IPC_OK)
        throw Failure(ExitStatus::NO_SERVICE,
                      "The transfer service cannot be reached; KY_LOG_LEVEL=4 tells why.");
    if (m_now() - start >= s_answerBound - s_slack)
        throw Failure(ExitStatus::TIMED_OUT, "The transfer service has not answered for a minute.");
    throw Failure(ExitStatus::FAILED,
                  "There was no answer of the transfer service that can be used; KY_LOG_LEVEL=4 tells why.");
}

}  // namespace ky_tferctl
