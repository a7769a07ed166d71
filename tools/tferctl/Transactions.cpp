#include "tferctl/Transactions.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "messages/KyServiceContract.h"
#include "tferctl/Failure.h"
#include "tferctl/Text.h"

namespace ky_tferctl {
namespace {

constexpr char kCancelledByOther[] = "Somebody else has cancelled the transfer";

std::string NewId() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return "tferctl-" + std::to_string(getpid()) + "-" + std::to_string(now.count());
}

std::string Reason(const Answer& answer) {
    return answer.text.empty() ? "without a reason" : Printable(answer.text);
}

}  // namespace

bool TransferLock::TryAcquire() {
    if (m_acquired) return true;
    if (!m_directory)
        m_directory = KyFd(open(ky_service::kStagingDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    m_acquired = !m_directory || flock(m_directory.Get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
    return m_acquired;
}

Transactions::Transactions(Service& service, const Options& options, Console& notices)
    : m_service(service), m_options(options), m_notices(notices), m_id(NewId()) {}

void Transactions::Begin(const Request& request) {
    StallTimeOut timeOut(m_options.timeOut);
    for (bool first = true;; first = false) {
        const bool locked = m_lock.TryAcquire();
        const KyTferStatusMsg record = m_service.Status();
        if (locked && TryToBegin(request, record)) break;
        if (!m_options.wait)
            throw Failure(ExitStatus::REFUSED, "Another transfer is in progress: " + Summary(record));
        if (timeOut.Expired(record))
            throw Failure(ExitStatus::TIMED_OUT, "Another transfer has stalled: " + Summary(record));
        ShowOther(record, first);
        timeOut.Pause();
    }
    m_notices.Clear();
}

// The file of a complete transfer may not have been moved yet: then the service lets the request wait.
bool Transactions::TryToBegin(const Request& request, const KyTferStatusMsg& record) {
    if (record.GetStatus() == KyTferStatusMsg::TFER_STATUS_INPROGRESS) return false;
    m_signal.emplace();
    const Answer answer = request(m_service, m_id);
    if (answer.accepted) return true;
    m_signal.reset();
    if (answer.text == ky_service::kCancelled) throw Failure(ExitStatus::FAILED, kCancelledByOther);
    // Another transfer may have begun after the record was read.
    if (answer.text != ky_service::kAlreadyInProgress)
        throw Failure(ExitStatus::REFUSED, "The transfer service refused: " + Reason(answer));
    return false;
}

void Transactions::ShowOther(const KyTferStatusMsg& record, bool first) {
    const std::string text = "Waiting for another transfer: " + Summary(record);
    if (m_notices.IsTerminal()) {
        m_notices.Redraw(text);
    } else if (first) {
        m_notices.Line(text);
    }
}

std::optional<KyTferStatusMsg> Transactions::Follow(RecordMatch& match, const Observer& observer) {
    auto record = FollowToEnd(match, observer);
    m_signal.reset();
    if (record && IsCancelled(*record)) throw Failure(ExitStatus::FAILED, kCancelledByOther);
    return record;
}

std::optional<KyTferStatusMsg> Transactions::FollowToEnd(RecordMatch& match, const Observer& observer) {
    StallTimeOut timeOut(m_options.timeOut);
    for (;;) {
        CancelIfInterrupted();
        const KyTferStatusMsg record = m_service.Status();
        if (record.GetXferFileName().empty())
            throw Failure(ExitStatus::FAILED, "The transfer service has restarted and lost this transfer.");
        if (!match.Matches(record)) return std::nullopt;
        observer(record);
        const bool ended = record.GetStatus() == KyTferStatusMsg::TFER_STATUS_COMPLETE ||
                           record.GetStatus() == KyTferStatusMsg::TFER_STATUS_FAIL;
        if (ended && !IsUnderWay(record)) return record;
        if (timeOut.Expired(record))
            throw Failure(ExitStatus::TIMED_OUT, "The transfer has stalled: " + Summary(record));
        timeOut.Pause();
    }
}

void Transactions::CancelIfInterrupted() {
    const int signal = m_signal ? m_signal->Take() : 0;
    if (signal != 0) throw Interrupted(signal, "Interrupted; " + Cancel());
}

// Returns the end of a sentence that tells whether the transfer was cancelled.
std::string Transactions::Cancel() {
    const std::string notDone = "the transfer was not cancelled: ";
    try {
        const Answer answer = m_service.Cancel(m_id);
        return answer.accepted ? "the transfer has been cancelled." : notDone + Reason(answer) + ".";
    } catch (const std::exception& failure) {
        return notDone + failure.what();
    }
}

}  // namespace ky_tferctl
