#ifndef MESSAGES_KYSERVICECONTRACT_H
#define MESSAGES_KYSERVICECONTRACT_H

#include <string>

#include "messages/KyTferRespMsg.h"

/// Names, result codes and texts that the transfer service and its callers share, beside the messages.
/// Internal: not installed.
namespace ky_service {

/// FIFO from which the service reads requests. Members of the service's group may write to it.
constexpr char kControlFifo[] = "tfersvc-CtrlFifo";
constexpr unsigned int kControlFifoMode = 0660;

/// Mode of the FIFO from which a caller reads the reply, and longest wait for the reply. Any user may write to
/// the FIFO: the service may run as any user.
constexpr unsigned int kReplyFifoMode = 0777;
constexpr int kReplyTimeOutMs = 60000;

/// Name of the session of the caller with this process id.
inline std::string CallerSession(int processId) {
    return "TferSvcClnt-" + std::to_string(static_cast<unsigned int>(processId));
}

/// Name of that session's reply FIFO.
inline std::string ReplyFifo(const std::string& callerSession) {
    return callerSession + "-ClntRxFifo";
}

/// Result of a request in a KyTferRespMsg.
constexpr auto kAccepted = static_cast<KyTferRespMsg::TferMsgResult>(1);
constexpr auto kRefused = static_cast<KyTferRespMsg::TferMsgResult>(2);

// Callers compare these texts.

/// Refuses a fetch or listing while another one is in progress.
constexpr char kAlreadyInProgress[] = "Transaction already in progress";

/// Status message of a fetch or listing whose file is arriving. Before that, the record may hold the byte
/// count of the transfer before it.
constexpr char kTransferInProgress[] = "File transfer inprogress";

/// Status message of a cancelled transfer; ": " and a reason may follow. Also refuses a request that was
/// cancelled while it waited.
constexpr char kCancelled[] = "File transfer cancelled";

/// File name of a listing's record, and its transfer name until the device names the listing file.
constexpr char kRequestDirectory[] = "DIRREQ";

/// File path of a push's record, without the "/" at its end. Pushed files are staged here.
constexpr char kStagingDirectory[] = "/var/local/tal/pldserver";

/// Last directory of the file path in the record of a complete fetch.
constexpr char kDownloadDirectory[] = "tferFiles";

}  // namespace ky_service

#endif
