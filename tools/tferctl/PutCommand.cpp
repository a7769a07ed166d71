#include <chrono>
#include <string>

#include "common/Text.h"
#include "tferctl/Commands.h"
#include "tferctl/ExitStatus.h"
#include "tferctl/StagedCopy.h"
#include "tferctl/Transactions.h"

namespace ky_tferctl {
namespace {

using Clock = std::chrono::steady_clock;
using ky_tools::Printable;

std::string Since(Clock::time_point start) {
    return ky_tools::Seconds(std::chrono::duration<double>(Clock::now() - start).count());
}

KyTferStatusMsg Push(const Context& context, const StagedCopy& copy, const std::string& label) {
    Transactions transactions(context.service, context.options, context.notices);
    const auto start = Clock::now();
    transactions.Begin([&](Service& service, const std::string& id) {
        context.out.Redraw(label);  // the service takes a second to answer
        return service.Push(copy.Path(), id);
    });
    PushClaim claim(copy.Name());
    // Nobody counts the bytes of a push.
    const auto record = transactions.Follow(
        claim, [&](const KyTferStatusMsg&) { context.out.Redraw(label + ", " + Since(start)); });
    context.out.Clear();
    if (!record)
        throw Failure(ExitStatus::FAILED, "Another transfer began before it could be seen whether " +
                                              Printable(copy.Name()) + " had been sent.");
    if (record->GetStatus() == KyTferStatusMsg::TFER_STATUS_FAIL)
        throw Failure(ExitStatus::FAILED,
                      Printable(copy.Name()) + " could not be sent: " + Printable(record->GetStatusMsg()));
    return *record;
}

}  // namespace

void RunPut(const Context& context) {
    context.service.Status();  // no copy for nobody
    const StagedCopy copy(context.options.subject);
    const std::string label = Printable(copy.Name()) + ", " + ky_tools::Bytes(copy.Size());
    const auto start = Clock::now();
    const KyTferStatusMsg record = Push(context, copy, "Sending " + label);
    context.out.Line(label + ", sent as " + Printable(record.GetXferFileName()) + " in " + Since(start));
}

}  // namespace ky_tferctl
