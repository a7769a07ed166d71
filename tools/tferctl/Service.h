#ifndef TFERCTL_SERVICE_H
#define TFERCTL_SERVICE_H

#include <chrono>
#include <memory>
#include <string>

#include "messages/KyTferRespMsg.h"
#include "messages/KyTferStatusMsg.h"

namespace ky_tferctl {

/// The service's reply to a request.
struct Answer {
    bool accepted = false;
    std::string text;
};

/// Sends requests to the transfer service. Each operation blocks until the reply has come: at most 10 seconds for
/// the write and 60 for the reply. If no valid reply comes, it throws a Failure with the reason.
class Service {
public:
    KyTferStatusMsg Status();

    /// @param transactionId  by which this transfer can be cancelled
    Answer FetchListing(const std::string& transactionId);
    Answer Fetch(const std::string& transferName, unsigned int size, const std::string& transactionId);

    /// @param path  of a file that the service takes over
    Answer Push(const std::string& path, const std::string& transactionId);

    /// Cancels the transfer with this identifier; with an empty one, the transfer in progress.
    Answer Cancel(const std::string& transactionId);

    /// Path of the FIFO that this process creates while it waits for a reply.
    static std::string ReplyFifoPath();

private:
    using Clock = std::chrono::steady_clock;

    static std::unique_ptr<KyTferMsg> Ask(std::unique_ptr<KyTferMsg> request);
    static Answer AskForAnswer(std::unique_ptr<KyTferMsg> request, const std::string& transactionId);
    [[noreturn]] static void ExplainMissingReply(Clock::time_point start);
};

}  // namespace ky_tferctl

#endif
