#include "service/TferService.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "messages/KyTferGetDevFile.h"
#include "messages/KyTferMsgFactory.h"
#include "messages/KyTferPutDevFile.h"
#include "platform/KyDlog.h"
#include "platform/KyIpcDirectory.h"
#include "platform/KyIpcMsgBuffer.h"
#include "platform/tal_fileutils.h"

using ky_service::kAccepted;
using ky_service::kCancelled;
using ky_service::kControlFifo;
using ky_service::kRefused;

namespace {

constexpr char kSource[] = "TferService";
constexpr char kLockFile[] = "/tfersvc.lock";
constexpr char kFlagDirectory[] = "/var/tmp/dmp";
constexpr char kStarting[] = "The transfer service is still looking for its place in the device";
constexpr char kBadName[] = "The name of the file is not acceptable";
constexpr char kEnding[] = "The transfer service is ending";
constexpr char kTooMany[] = "Too many requests are waiting";
constexpr char kNothingInProgress[] = "No transfer is in progress";
constexpr char kOtherInProgress[] = "That transfer is not in progress";
constexpr char kTwoInProgress[] = "Two transfers are in progress; only a cancel without identifier ends them";
constexpr auto kWorkerTimeOut = std::chrono::seconds(8);
// Time for the proxy to end an aborted call. Otherwise the call could write to the file that is fetched next,
// if both have the same name.
constexpr auto kCancelledWorkerTimeOut = std::chrono::milliseconds(100);
constexpr int kReplyWriteBoundMs = 50;
constexpr int kShortReplyBytes = 4000;
constexpr int kMaxRequestsPerRound = 64;
constexpr int kEnginePollMs = 10;  // while a request or a listing waits for the engine
constexpr int kNoTimeOut = -1;

/// Whether a file of this name stays in the directory that it is put into.
bool IsAcceptable(const std::string& name) {
    return !name.empty() && name.find('/') == std::string::npos && name.find("..") == std::string::npos;
}

/// Whether the message has no missing and no surplus bytes: then serialising it again gives the same bytes.
/// The server identifier is not compared: it has 32 bits on the wire, of which 16 count.
bool IsWhole(KyTferMsg& message, const KyIpcMsgBuffer& received) {
    constexpr int kTypeEnd = 4;
    constexpr int kServerEnd = 8;
    KyIpcMsgBuffer again(received.GetLength());
    message.Serialize(&again);
    const int length = received.GetLength();
    if (again.GetLength() != length || length < kServerEnd) return false;
    return memcmp(again.GetBuf(), received.GetBuf(), kTypeEnd) == 0 &&
           memcmp(again.GetBuf() + kServerEnd, received.GetBuf() + kServerEnd,
                  static_cast<size_t>(length - kServerEnd)) == 0;
}

bool BeginsTransaction(const KyTferMsg& message) {
    return message.GetMsgType() == KyTferMsg::TFER_MSG_GET_DEV_FILE ||
           message.GetMsgType() == KyTferMsg::TFER_MSG_PUT_DEV_FILE ||
           message.GetMsgType() == KyTferMsg::TFER_MSG_GET_DEV_DIR;
}

KyTferStatusMsg Refusal(const std::string& reason) {
    KyTferStatusMsg record(512);
    record.SetStatus(KyTferStatusMsg::TFER_STATUS_FAIL);
    record.SetStatusMsg(reason);
    return record;
}

bool IsInProgress(const KyTferStatusMsg& record) {
    return record.GetStatus() == KyTferStatusMsg::TFER_STATUS_INPROGRESS;
}

bool IsCancelled(const KyTferStatusMsg& record) {
    return record.GetStatus() == KyTferStatusMsg::TFER_STATUS_FAIL &&
           record.GetStatusMsg().compare(0, strlen(kCancelled), kCancelled) == 0;
}

}  // namespace

TferService::TferService(unsigned short deviceId, DeviceLink& link, unsigned int pollPauseMs)
    : m_deviceId(deviceId),
      m_link(link),
      m_control("tfersvc", KyIpcFifoSession::IPC_CLOSE_NO_CONFIRM),
      m_waiting(kWorkerTimeOut) {
    m_engine.SetPollPause(pollPauseMs);
}

TferService::~TferService() {
    Stop();
}

bool TferService::Start() {
    m_wakeUp = KyFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!m_wakeUp || !OpenControlFifo()) return false;
    tal_fileutils::MakeDirPath(kFlagDirectory, 0755, true);
    m_initThread = std::thread([this] { InitEngine(); });
    m_loopThread = std::thread([this] { Run(); });
    return true;
}

bool TferService::OpenControlFifo() {
    int status = ky_ipc::CreateIpcDirectory();
    const std::string directory = ky_ipc::IpcDirectory();
    if (status != KyIpcFifoSession::IPC_OK) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "Start", "cannot use %s for the FIFOs, status %d",
                        directory.c_str(), status);
        return false;
    }
    if (!LockOutOthers(directory)) return false;
    status = m_control.OpenReadFifo(kControlFifo, ky_service::kControlFifoMode);
    if (status != KyIpcFifoSession::IPC_OK) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "Start", "cannot open %s/%s, status %d", directory.c_str(),
                        kControlFifo, status);
        return false;
    }
    return true;
}

// The lock file stays when the service ends: only the lock tells whether a service runs.
bool TferService::LockOutOthers(const std::string& directory) {
    m_lock = KyFd(open((directory + kLockFile).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (m_lock && flock(m_lock.Get(), LOCK_EX | LOCK_NB) == 0) return true;
    const bool taken = m_lock && errno == EWOULDBLOCK;
    __dlog_printfex(KY_DLOG_ERROR, kSource, "Start", "%s: %s",
                    taken ? "another transfer service is running" : "cannot take the lock", strerror(errno));
    return false;
}

void TferService::InitEngine() {
    const int status = m_engine.Init(m_deviceId, &m_link.Proxy());
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "InitEngine", "the engine is ready, status %d", status);
    m_ready = true;
    eventfd_write(m_wakeUp.Get(), 1);
}

void TferService::Stop() {
    if (!m_initThread.joinable()) return;
    // Before the abort: otherwise the loop could begin a waiting request.
    m_stop = true;
    m_link.Abort();
    eventfd_write(m_wakeUp.Get(), 1);
    m_engine.Stop();
    // The thread is missing if the system could not start it.
    if (m_loopThread.joinable()) m_loopThread.join();
    m_initThread.join();
    m_control.Close();
}

void TferService::Run() {
    while (!m_stop) {
        try {
            if (!WaitForWork()) continue;
            if (m_ready) DeliverChanges();
            ReadRequests();
            BeginDueTransactions();
        } catch (const std::exception& error) {
            __dlog_printfex(KY_DLOG_ERROR, kSource, "Run", "%s", error.what());
        }
    }
    RefuseWaiting();
}

// Otherwise the callers of waiting requests would get no reply.
void TferService::RefuseWaiting() {
    try {
        while (const auto request = m_waiting.TakeDue(false))
            Reply(*request, kRefused, kEnding);
    } catch (const std::exception& error) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "Run", "%s", error.what());
    }
}

// Returns false if the caller has only to check m_stop.
bool TferService::WaitForWork() {
    // Before the engine is ready, queued changes must not wake up the loop.
    const int changes = m_ready ? m_link.ChangesDescriptor() : -1;
    struct pollfd sources[] = {
        {m_wakeUp.Get(), POLLIN, 0}, {m_control.ReadDescriptor(), POLLIN, 0}, {changes, POLLIN, 0}};
    const bool watching = !m_waiting.Empty() || m_listingDue;
    const int timeOut = m_moreRequests ? 0 : watching ? kEnginePollMs : kNoTimeOut;
    if (poll(sources, 3, timeOut) < 0) return false;
    eventfd_t wakes = 0;
    eventfd_read(m_wakeUp.Get(), &wakes);
    return !m_stop;
}

void TferService::DeliverChanges() {
    m_link.DeliverChanges([this](const KyValChgInfo& change) { m_engine.DataChange(change); });
}

// The number of requests is bounded, so that busy callers cannot starve the loop's other work.
void TferService::ReadRequests() {
    KyIpcMsgBuffer buffer(1024);
    m_moreRequests = true;
    for (int i = 0; i < kMaxRequestsPerRound && m_moreRequests && !m_stop; ++i) {
        const int status = m_control.Read(&buffer, 0);
        // More messages may be buffered, and poll() would not report them.
        if (status == KyIpcFifoSession::IPC_NO_MEMORY) continue;
        m_moreRequests = status == KyIpcFifoSession::IPC_OK;
        if (!m_moreRequests) return;
        Handle(buffer);
        if (m_ready) DeliverChanges();
    }
}

void TferService::Handle(KyIpcMsgBuffer& buffer) {
    std::unique_ptr<KyTferMsg> message(KyTferMsgFactory::CreateMsgFromBuffer(&buffer));
    if (!message || !IsWhole(*message, buffer)) {
        __dlog_printfex(KY_DLOG_WARNING, kSource, "Handle",
                        "dropped an unknown or damaged message of %d bytes, type %d", buffer.GetLength(),
                        KyTferMsg::PeekMsgType(buffer.GetBuf()));
        return;
    }
    if (message->GetMsgType() == KyTferMsg::TFER_MSG_STATUS) return ReplyWithRecord(*message);
    if (message->GetMsgType() == KyTferMsg::TFER_MSG_RESP) {
        __dlog_printfex(KY_DLOG_WARNING, kSource, "Handle", "dropped a reply that nobody asked for");
        return;
    }
    if (!m_ready) return Reply(*message, kRefused, kStarting);
    if (!BeginsTransaction(*message)) return Cancel(*message);
    if (!m_waiting.Add(message)) Reply(*message, kRefused, kTooMany);
}

void TferService::Cancel(const KyTferMsg& request) {
    m_engine.CancelTransaction(request.GetTransId());
    std::string text = kCancelled;
    const bool removed = RefuseCancelled(request.GetTransId());
    const bool ended = CancelCurrent(request.GetTransId(), text);
    Reply(request, ended || removed ? kAccepted : kRefused, removed ? kCancelled : text);
}

// Removes the waiting requests with this identifier. Returns false if there is none.
bool TferService::RefuseCancelled(const std::string& transId) {
    bool removed = false;
    while (const auto waiting = transId.empty() ? nullptr : m_waiting.TakeById(transId)) {
        removed = true;
        Reply(*waiting, kRefused, kCancelled);
    }
    return removed;
}

// The reason why a cancel with this identifier must not end the record's transaction; null if it may.
const char* TferService::CancelRefusal(const std::string& transId, const KyTferStatusMsg& record) const {
    if (transId.empty()) return nullptr;
    if (m_lastIsSecondPush && IsInProgress(record)) return kTwoInProgress;
    return m_lastIsSecondPush || transId != m_lastId ? kOtherInProgress : nullptr;
}

// Ends the transaction in progress if the identifier is its own or empty. Returns false, and the reason in
// `text`, if nothing was ended.
bool TferService::CancelCurrent(const std::string& transId, std::string& text) {
    const KyTferStatusMsg before = m_engine.GetStatus(transId);
    if (const char* const reason = CancelRefusal(transId, before)) {
        text = reason;
        return false;
    }
    const KyTferStatusMsg record = m_engine.AbandonTransaction("");
    text = kNothingInProgress;
    // A record that was cancelled before stays cancelled, though this call has ended nothing.
    if (!IsCancelled(record) || IsCancelled(before)) return false;
    m_listingDue = false;
    m_cancelledAt = RequestQueue::Clock::now();
    text = record.GetStatusMsg();
    return true;
}

// A worker causes changes of its own transaction, but none after that was cancelled.
bool TferService::MustWaitForWorker() const {
    const bool timedOut =
        m_cancelledAt && RequestQueue::Clock::now() - *m_cancelledAt >= kCancelledWorkerTimeOut;
    return m_engine.WorkerRunning() && !timedOut;
}

void TferService::BeginDueTransactions() {
    while (!m_stop) {
        // Checked before the delivery too: a worker that ends during it may have caused more changes.
        const bool workerRunning = MustWaitForWorker();
        if (m_ready) DeliverChanges();
        // The next transaction's record replaces the path of the listing.
        ReadListing();
        const bool mustWait = workerRunning || MustWaitForWorker();
        if (m_stop) return;  // read last: Stop sets the flag before it ends the worker
        const std::unique_ptr<KyTferMsg> request = m_waiting.TakeDue(mustWait);
        if (!request) return;
        Begin(*request);
    }
}

void TferService::Begin(KyTferMsg& request) {
    KyTferStatusMsg record(512);
    std::string transId = request.GetTransId();  // copied before the transaction begins: the copy can throw
    bool isSecondPush = false;
    if (const auto* fetch = dynamic_cast<KyTferGetDevFile*>(&request)) {
        record = IsAcceptable(fetch->GetXferFileName())
                     ? m_engine.GetFileFromDevRequest(fetch->GetXferFileName(), fetch->GetXferFileSize())
                     : Refusal(kBadName);
    } else if (const auto* push = dynamic_cast<KyTferPutDevFile*>(&request)) {
        isSecondPush = IsInProgress(m_engine.GetStatus(""));
        record = Push(push->GetSrcPath());
    } else {
        record = m_engine.GetDirectoryFromDevRequest();
        // A refused request does not affect an earlier listing that is in progress.
        m_listingDue = m_listingDue || IsInProgress(record);
    }
    const bool accepted = IsInProgress(record);
    if (accepted) {
        m_lastId = std::move(transId);
        m_lastIsSecondPush = isSecondPush;
        m_cancelledAt.reset();
    }
    Reply(request, accepted ? kAccepted : kRefused, record.GetStatusMsg());
}

KyTferStatusMsg TferService::Push(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos || path.front() != '/' || !IsAcceptable(path.substr(slash + 1))) {
        return Refusal(kBadName);
    }
    return m_engine.PutFileToDevRequest(path.substr(0, slash), path.substr(slash + 1));
}

void TferService::ReadListing() {
    if (!m_listingDue) return;
    const KyTferStatusMsg record = m_engine.GetStatus("");
    const bool isInPlace = record.GetReqType() == KyTferStatusMsg::TFER_REQ_DIRECTORY &&
                           record.GetStatus() == KyTferStatusMsg::TFER_STATUS_COMPLETE &&
                           record.GetFilePath() == KyTferClient::GetHmiDownloadDirectory();
    // A listing in place is complete, even if the worker of a cancelled transaction still runs.
    if (!isInPlace && (IsInProgress(record) || m_engine.WorkerRunning())) return;
    m_listingDue = false;
    if (isInPlace) m_engine.CreateDirectoryFromFile(record.GetXferFullFilePath());
}

void TferService::ReplyWithRecord(const KyTferMsg& request) {
    KyTferStatusMsg record = m_ready ? m_engine.GetStatus(request.GetTransId()) : Refusal(kStarting);
    Send(request, record);
}

void TferService::Reply(const KyTferMsg& request, KyTferRespMsg::TferMsgResult result,
                        const std::string& text) {
    KyTferRespMsg reply(512);
    reply.SetResultStatus(result);
    reply.SetResultMsg(text);
    Send(request, reply);
}

void TferService::Send(const KyTferMsg& request, KyTferMsg& reply) {
    reply.SetSorServerId(request.GetSorServerId());
    reply.SetTransId(request.GetTransId());
    reply.SetCallerContext(request.GetCallerContext());
    const std::string& fifo = request.GetRespFifo();
    int status = KyIpcFifoSession::IPC_REFUSED;
    if (fifo != kControlFifo) {
        KyIpcMsgBuffer buffer(512);
        reply.Serialize(&buffer);
        KyIpcFifoSession session("tfersvc", KyIpcFifoSession::IPC_CLOSE_NO_CONFIRM);
        // An empty FIFO has room for a short reply. A full one belongs to a caller that does not read.
        session.SetWriteBound(buffer.GetLength() < kShortReplyBytes ? 0 : kReplyWriteBoundMs);
        status = session.OpenCtrlFifo(fifo.c_str());
        if (status == KyIpcFifoSession::IPC_OK) {
            status = session.WriteCtrl(reinterpret_cast<const char*>(buffer.GetBuf()), buffer.GetLength());
        }
    }
    if (status != KyIpcFifoSession::IPC_OK) {
        __dlog_printfex(KY_DLOG_WARNING, kSource, "Send", "could not answer on (%s), status %d", fifo.c_str(),
                        status);
    }
}
