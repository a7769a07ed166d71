#ifndef TFERCTL_SERVICE_H
#define TFERCTL_SERVICE_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "client/TferSvcMsgClient.h"
#include "messages/KyTferRespMsg.h"
#include "messages/KyTferStatusMsg.h"

namespace ky_tferctl {

/// What the service says to a request.
struct Answer {
    bool accepted = false;
    std::string text;
};

/// The transfer service as the process's client reaches it, with a reason where there is no answer. Every
/// operation waits for the service's answer, for a minute at most, and throws a Failure if none comes that
/// can be used.
class Service {
public:
    using Clock = std::chrono::steady_clock;

    /// @param now  the time
    explicit Service(std::function<Clock::time_point()> now = Clock::now) : m_now(std::move(now)) {}

    KyTferStatusMsg Status();

    /// @param id  identifier by which this transfer can be cancelled
    Answer FetchListing(const std::string& id);
    Answer Fetch(const std::string& transferName, unsigned int size, const std::string& id);

    /// @param path  of a file that the service may keep
    Answer Push(const std::string& path, const std::string& id);

    /// Cancels the transfer with this identifier; with an empty one, whichever is in progress.
    Answer Cancel(const std::string& id);

    /// Name of the FIFO that this process makes while it waits for an answer.
    static std::string ReplyFifo();

private:
    std::unique_ptr<KyTferMsg> Ask(std::unique_ptr<KyTferMsg> request);
    Answer AskForAnswer(std::unique_ptr<KyTferMsg> request, const std::string& id);
    [[noreturn]] void ExplainSilence(Clock::time_point start) const;

    const std::function<Clock::time_point()> m_now;
};

}  // namespace ky_tferctl

#endif
