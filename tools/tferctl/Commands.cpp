// The commands that need no listing: status, put and cancel.
#include "tferctl/Commands.h"

#include <chrono>
#include <string>

#include "tferctl/Failure.h"
#include "tferctl/FileCopy.h"
#include "tferctl/StatusRecord.h"
#include "tferctl/Text.h"
#include "tferctl/Transactions.h"

namespace ky_tferctl {
namespace {

using PushClock = std::chrono::steady_clock;

/// Shows the record while it changes: on a terminal each change, elsewhere each tenth of the transfer.
class StatusView {
public:
    explicit StatusView(const Context& context) : m_out(context.out), m_json(context.options.json) {}

    void Change(const KyTferStatusMsg& record) {
        const std::string stage = Stage(record);
        if (m_out.IsTerminal() && !m_json) {
            m_out.Redraw(Summary(record));
        } else if (stage != m_lastStage) {
            m_out.Line(m_json ? record.GetJsonStatus() : Summary(record));
        }
        m_lastStage = stage;
    }

    void Final(const KyTferStatusMsg& record) {
        m_out.Line(m_json ? record.GetJsonStatus() : Description(record));
    }

private:
    static std::string Stage(const KyTferStatusMsg& record) {
        return std::to_string(record.GetStatus()) + "|" + record.GetXferFileName() + "|" +
               record.GetStatusMsg() + "|" + std::to_string(Percent(record) / 10);
    }

    Console& m_out;
    const bool m_json;
    std::string m_lastStage;
};

/// @return the record at the end; `record` itself if nothing is in progress
KyTferStatusMsg Watch(const Context& context, KyTferStatusMsg record, StatusView& view) {
    StallTimeOut timeOut(context.options.timeOut);
    while (IsUnderWay(record)) {
        view.Change(record);
        if (timeOut.Expired(record))
            throw Failure(ExitStatus::TIMED_OUT, "The transfer has stalled: " + Summary(record));
        timeOut.Pause();
        record = context.service.Status();
    }
    return record;
}

std::string Since(PushClock::time_point start) {
    return Seconds(std::chrono::duration<double>(PushClock::now() - start).count());
}

KyTferStatusMsg Push(const Context& context, const StagedCopy& copy, const std::string& label) {
    Transactions transactions(context.service, context.options, context.notices);
    const auto start = PushClock::now();
    transactions.Begin([&](Service& service, const std::string& transactionId) {
        context.out.Redraw(label);  // the service takes a second to reply
        return service.Push(copy.Path(), transactionId);
    });
    PushMatch match(copy.FileName());
    // The record of a push does not count bytes.
    const auto record = transactions.Follow(
        match, [&](const KyTferStatusMsg&) { context.out.Redraw(label + ", " + Since(start)); });
    context.out.Clear();
    if (!record)
        throw Failure(ExitStatus::FAILED, "Another transfer began before it could be seen whether " +
                                              Printable(copy.FileName()) + " had been sent.");
    if (record->GetStatus() == KyTferStatusMsg::TFER_STATUS_FAIL)
        throw Failure(ExitStatus::FAILED, Printable(copy.FileName()) +
                                              " could not be sent: " + Printable(record->GetStatusMsg()));
    return *record;
}

}  // namespace

void RunStatus(const Context& context) {
    StatusView view(context);
    const KyTferStatusMsg first = context.service.Status();
    if (!context.options.watch || !IsUnderWay(first)) return view.Final(first);
    const KyTferStatusMsg last = Watch(context, first, view);
    view.Final(last);
    if (last.GetStatus() == KyTferStatusMsg::TFER_STATUS_FAIL)
        throw Failure(ExitStatus::FAILED, "The transfer has failed: " + Printable(last.GetStatusMsg()));
}

void RunPut(const Context& context) {
    context.service.Status();  // Fail before copying if no service runs.
    const StagedCopy copy(context.options.sourcePath);
    const std::string label = Printable(copy.FileName()) + ", " + Bytes(copy.Size());
    const auto start = PushClock::now();
    const KyTferStatusMsg record = Push(context, copy, "Sending " + label);
    context.out.Line(label + ", sent as " + Printable(record.GetXferFileName()) + " in " + Since(start));
}

void RunCancel(const Context& context) {
    const Answer answer = context.service.Cancel(context.options.transactionId);
    if (!answer.accepted) throw Failure(ExitStatus::REFUSED, Printable(answer.text));
    context.out.Line("The transfer has been cancelled.");
}

}  // namespace ky_tferctl
