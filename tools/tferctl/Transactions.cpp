#include "tferctl/Transactions.h"

#include "common/Text.h"
#include "tferctl/ExitStatus.h"

namespace ky_tferctl {
namespace {

// The engine's word for what can also happen between our look at the record and our request.
constexpr char s_busy[] = "Transaction already in progress";

std::string Quoted(const std::string& text) {
    return text.empty() ? std::string("without a reason") : ky_tools::Printable(text);
}

}  // namespace

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
    const Answer answer = ask(m_service);
    if (!answer.accepted && answer.text != s_busy)
        throw Failure(ExitStatus::REFUSED, "The transfer service refused: " + Quoted(answer.text));
    return answer.accepted;
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
    Standstill standstill(m_options.timeOut);
    for (;;) {
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

}  // namespace ky_tferctl
