#include "tferctl/Service.h"

#include <unistd.h>

#include "messages/KyServiceContract.h"
#include "messages/KyTferCancelTransMsg.h"
#include "messages/KyTferGetDevDirMsg.h"
#include "messages/KyTferGetDevFile.h"
#include "messages/KyTferPutDevFile.h"
#include "platform/KyIpcFifoSession.h"
#include "tferctl/ExitStatus.h"

namespace ky_tferctl {
namespace {

constexpr auto s_answerBound = std::chrono::milliseconds(ky_service::kReplyTimeoutMs);
constexpr auto s_slack = std::chrono::seconds(1);

/// Whether a service reads requests at this moment. @return a KyIpcFifoSession::IpcStatus
int Probe() {
    KyIpcFifoSession session("tferctl", KyIpcFifoSession::IPC_CLOSE_NO_CONFIRM);
    return session.OpenCtrlFifo(ky_service::kControlFifo);
}

}  // namespace

KyTferStatusMsg Service::Status() {
    const std::unique_ptr<KyTferMsg> reply = Ask(std::make_unique<KyTferStatusMsg>(512));
    const auto* const record = dynamic_cast<const KyTferStatusMsg*>(reply.get());
    if (record == nullptr)
        throw Failure(ExitStatus::FAILED,
                      "The transfer service answered with something else than its status.");
    return *record;
}

// The client's own operations send no identifier, and keep the answer to a cancel to themselves.

Answer Service::FetchListing(const std::string& id) {
    return AskForAnswer(std::make_unique<KyTferGetDevDirMsg>(512), id);
}

Answer Service::Fetch(const std::string& transferName, unsigned int size, const std::string& id) {
    auto request = std::make_unique<KyTferGetDevFile>(1024);
    request->SetXferFileName(transferName);
    request->SetXferFileSize(static_cast<int>(size));
    return AskForAnswer(std::move(request), id);
}

Answer Service::Push(const std::string& path, const std::string& id) {
    auto request = std::make_unique<KyTferPutDevFile>(1024);
    request->SetSrcPath(path);
    return AskForAnswer(std::move(request), id);
}

Answer Service::Cancel(const std::string& id) {
    return AskForAnswer(std::make_unique<KyTferCancelTransMsg>(512), id);
}

std::string Service::ReplyFifo() {
    return ky_service::ReplyFifo(ky_service::CallerSession(getpid()));
}

std::unique_ptr<KyTferMsg> Service::Ask(std::unique_ptr<KyTferMsg> request) {
    const Clock::time_point start = m_now();
    TferSvcMsgClient* const client = TferSvcMsgClient::GetInstance();
    if (client == nullptr) throw std::bad_alloc();
    std::unique_ptr<KyTferMsg> reply(client->DoRequest(request.release()));
    if (!reply) ExplainSilence(start);
    return reply;
}

Answer Service::AskForAnswer(std::unique_ptr<KyTferMsg> request, const std::string& id) {
    request->SetTransId(id);
    const std::unique_ptr<KyTferMsg> reply = Ask(std::move(request));
    const auto* const response = dynamic_cast<const KyTferRespMsg*>(reply.get());
    if (response == nullptr)
        throw Failure(ExitStatus::FAILED, "The transfer service answered with something else than a result.");
    return {response->GetResultStatus() == ky_service::kAccepted, response->GetResultMsg()};
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
