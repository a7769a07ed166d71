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
    Answer FetchListing();
    Answer Fetch(const std::string& transferName, unsigned int size);

    /// @param path  of a file that the service may keep
    Answer Push(const std::string& path);

    Answer Cancel(const std::string& id);

    /// Name of the FIFO that this process makes while it waits for an answer.
    static std::string ReplyFifo();

private:
    using Request = std::function<KyTferMsg*(TferSvcMsgClient& client)>;

    std::unique_ptr<KyTferMsg> Ask(const Request& request);
    Answer AskForAnswer(const Request& request);
    [[noreturn]] void ExplainSilence(Clock::time_point start) const;

    const std::function<Clock::time_point()> m_now;
};

}  // namespace ky_tferctl

#endif
