#include "tferctl/Transactions.h"

#include <unistd.h>

#include <chrono>

#include "common/Text.h"
#include "messages/KyServiceContract.h"
#include "tferctl/ExitStatus.h"

namespace ky_tferctl {
namespace {

constexpr char s_cancelledByOther[] = "Somebody else has cancelled the transfer";

std::string NewId() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return "tferctl-" + std::to_string(getpid()) + "-" + std::to_string(now.count());
}

std::string Quoted(const std::string& text) {
    return text.empty() ? std::string("without a reason") : ky_tools::Printable(text);
}

}  // namespace

Transactions::Transactions(Service& service, const Options& options, ky_tools::Console& notices)
    : m_service(service), m_options(options), m_notices(notices), m_id(NewId()) {}

void Transactions::Begin(const Ask& ask) {
    Standstill others(m_options.timeOut);
    for (bool first = true;; first = false) {
        const bool ourTurn = m_turn.Take();
        const KyTferStatusMsg record = m_service.Status();
        if (ourTurn && TryToBegin(ask, record)) break;
        if (!m_options.wait)
            throw Failure(ExitStatus::REFUSED, "Another transfer is in progress: " + Summary(record));
        if (others.Lasts(record))
            throw Failure(ExitStatus::TIMED_OUT,
                          "Another transfer does not come to its end: " + Summary(record));
        TellOfOther(record, first);
        others.Pause();
    }
    m_notices.Clear();
}

// A complete record will do, even if its file is still to be moved: the service lets the request wait for
// that.
bool Transactions::TryToBegin(const Ask& ask, const KyTferStatusMsg& record) {
    if (record.GetStatus() == KyTferStatusMsg::TFER_STATUS_INPROGRESS) return false;
    m_interruption.emplace();
    const Answer answer = ask(m_service, m_id);
    if (answer.accepted) return true;
    m_interruption.reset();
    if (answer.text == ky_service::kCancelled) throw Failure(ExitStatus::FAILED, s_cancelledByOther);
    if (answer.text != ky_service::kAlreadyInProgress)
        throw Failure(ExitStatus::REFUSED, "The transfer service refused: " + Quoted(answer.text));
    return false;
}

void Transactions::TellOfOther(const KyTferStatusMsg& record, bool first) {
    const std::string text = "Waiting for another transfer: " + Summary(record);
    if (m_notices.IsTerminal()) {
        m_notices.Redraw(text);
    } else if (first) {
        m_notices.Line(text);
    }
}

std::optional<KyTferStatusMsg> Transactions::Follow(Claim& claim, const Observer& observer) {
    auto record = FollowToEnd(claim, observer);
    m_interruption.reset();
    if (record && IsCancelled(*record)) throw Failure(ExitStatus::FAILED, s_cancelledByOther);
    return record;
}

std::optional<KyTferStatusMsg> Transactions::FollowToEnd(Claim& claim, const Observer& observer) {
    Standstill standstill(m_options.timeOut);
    for (;;) {
        AbandonIfInterrupted();
        const KyTferStatusMsg record = m_service.Status();
        if (record.GetXferFileName().empty())
            throw Failure(ExitStatus::FAILED, "The transfer service has begun anew and lost this transfer.");
        if (!claim.Holds(record)) return std::nullopt;
        observer(record);
        const bool ended = record.GetStatus() == KyTferStatusMsg::TFER_STATUS_COMPLETE ||
                           record.GetStatus() == KyTferStatusMsg::TFER_STATUS_FAIL;
        if (ended && !IsUnderWay(record)) return record;
        if (standstill.Lasts(record))
            throw Failure(ExitStatus::TIMED_OUT, "The transfer does not come to its end: " + Summary(record));
        standstill.Pause();
    }
}

void Transactions::AbandonIfInterrupted() {
    const int signal = m_interruption ? m_interruption->Take() : 0;
    if (signal != 0) throw Interrupted(signal, "Interrupted; " + Abandon());
}

// Says what has become of the transfer.
std::string Transactions::Abandon() {
    const std::string notDone = "the transfer was not cancelled: ";
    try {
        const Answer answer = m_service.Cancel(m_id);
        return answer.accepted ? "the transfer has been cancelled." : notDone + Quoted(answer.text) + ".";
    } catch (const std::exception& failure) {
        return notDone + failure.what();
    }
}

}  // namespace ky_tferctl
