#include "tferctl/Service.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "client/TferSvcMsgClient.h"
#include "messages/KyServiceContract.h"
#include "messages/KyTferCancelTransMsg.h"
#include "messages/KyTferGetDevDirMsg.h"
#include "messages/KyTferGetDevFile.h"
#include "messages/KyTferPutDevFile.h"
#include "platform/KyIpcDirectory.h"
#include "platform/KyIpcFifoSession.h"
#include "tferctl/Failure.h"

namespace ky_tferctl {
namespace {

constexpr auto kReplyTimeOut = std::chrono::milliseconds(ky_service::kReplyTimeOutMs);
constexpr auto kTolerance = std::chrono::seconds(1);

/// @return IPC_OK if a service reads requests, otherwise the KyIpcFifoSession::IpcStatus that tells why not
int Probe() {
    KyIpcFifoSession session("tferctl", KyIpcFifoSession::IPC_CLOSE_NO_CONFIRM);
    return session.OpenCtrlFifo(ky_service::kControlFifo);
}

std::string GroupName(gid_t group) {
    const struct group* const entry = getgrgid(group);
    return entry == nullptr ? std::to_string(group) : entry->gr_name;
}

/// Name of the path's group, if only the group's members have the access that this process is denied;
/// otherwise empty.
std::string GroupWithAccess(const std::string& path, int access) {
    struct stat found = {};
    const bool denied = faccessat(AT_FDCWD, path.c_str(), access, AT_EACCESS) != 0 && errno == EACCES;
    const mode_t groupAccess = static_cast<mode_t>(access) << 3;
    if (!denied || stat(path.c_str(), &found) != 0 || (found.st_mode & groupAccess) != groupAccess) return {};
    return GroupName(found.st_gid);
}

/// Name of the group whose members may send requests, if this process may not; otherwise empty.
std::string GroupOfCallers() {
    const std::string directory = ky_ipc::IpcDirectory();
    const std::string group = GroupWithAccess(directory, W_OK | X_OK);
    return group.empty() ? GroupWithAccess(directory + "/" + ky_service::kControlFifo, W_OK) : group;
}

}  // namespace

KyTferStatusMsg Service::Status() {
    const std::unique_ptr<KyTferMsg> reply = Ask(std::make_unique<KyTferStatusMsg>(512));
    const auto* const record = dynamic_cast<const KyTferStatusMsg*>(reply.get());
    if (record == nullptr)
        throw Failure(ExitStatus::FAILED,
                      "The transfer service sent no status in reply to a status request.");
    return *record;
}

// The client's own operations send no transaction identifier, and do not return the reply to a cancel
// request.

Answer Service::FetchListing(const std::string& transactionId) {
    return AskForAnswer(std::make_unique<KyTferGetDevDirMsg>(512), transactionId);
}

Answer Service::Fetch(const std::string& transferName, unsigned int size, const std::string& transactionId) {
    auto request = std::make_unique<KyTferGetDevFile>(1024);
    request->SetXferFileName(transferName);
    request->SetXferFileSize(static_cast<int>(size));
    return AskForAnswer(std::move(request), transactionId);
}

Answer Service::Push(const std::string& path, const std::string& transactionId) {
    auto request = std::make_unique<KyTferPutDevFile>(1024);
    request->SetSrcPath(path);
    return AskForAnswer(std::move(request), transactionId);
}

Answer Service::Cancel(const std::string& transactionId) {
    return AskForAnswer(std::make_unique<KyTferCancelTransMsg>(512), transactionId);
}

std::string Service::ReplyFifoPath() {
    return ky_ipc::IpcDirectory() + "/" + ky_service::ReplyFifo(ky_service::CallerSession(getpid()));
}

std::unique_ptr<KyTferMsg> Service::Ask(std::unique_ptr<KyTferMsg> request) {
    const Clock::time_point start = Clock::now();
    TferSvcMsgClient* const client = TferSvcMsgClient::GetInstance();
    if (client == nullptr) throw std::bad_alloc();
    std::unique_ptr<KyTferMsg> reply(client->DoRequest(request.release()));
    if (!reply) ExplainMissingReply(start);
    return reply;
}

Answer Service::AskForAnswer(std::unique_ptr<KyTferMsg> request, const std::string& transactionId) {
    request->SetTransId(transactionId);
    const std::unique_ptr<KyTferMsg> reply = Ask(std::move(request));
    const auto* const response = dynamic_cast<const KyTferRespMsg*>(reply.get());
    if (response == nullptr)
        throw Failure(ExitStatus::FAILED, "The transfer service sent a reply of another kind than expected.");
    return {response->GetResultStatus() == ky_service::kAccepted, response->GetResultMsg()};
}

// The client does not tell why there is no reply.
void Service::ExplainMissingReply(Clock::time_point start) {
    const int status = Probe();
    if (status == KyIpcFifoSession::IPC_NO_FIFO || status == KyIpcFifoSession::IPC_NO_READER)
        throw Failure(ExitStatus::NO_SERVICE, "No transfer service is running.");
    const std::string group = GroupOfCallers();
    if (!group.empty())
        throw Failure(ExitStatus::NO_SERVICE,
                      "The transfer service accepts requests from members of group " + group + " only.");
    if (status != KyIpcFifoSession::IPC_OK)
        throw Failure(ExitStatus::NO_SERVICE,
                      "The transfer service cannot be reached; KY_LOG_LEVEL=4 shows the reason.");
    if (Clock::now() - start >= kReplyTimeOut - kTolerance)
        throw Failure(ExitStatus::TIMED_OUT, "The transfer service has not answered for a minute.");
    throw Failure(ExitStatus::FAILED,
                  "The transfer service sent no valid reply; KY_LOG_LEVEL=4 shows the reason.");
}

}  // namespace ky_tferctl
