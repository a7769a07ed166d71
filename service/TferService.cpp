#include "service/TferService.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "host/KyHostIpc.h"
#include "messages/KyTferGetDevFile.h"
#include "messages/KyTferMsgFactory.h"
#include "messages/KyTferPutDevFile.h"
#include "platform/KyDlog.h"
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
constexpr char kNothing[] = "No transfer is in progress";
constexpr char kNotThat[] = "That transfer is not in progress";
constexpr char kNotAlone[] = "Two transfers are in progress; only a cancel without identifier ends them";
constexpr auto kPatience = std::chrono::seconds(8);
// Enough for a proxy to end the call that it has been told to abort. The rest of that call could otherwise
// get into a file of the same name that is fetched next.
constexpr auto kAbandonedPatience = std::chrono::milliseconds(100);
constexpr int kAnswerBoundMs = 50;
constexpr int kShortAnswer = 4000;
constexpr int kRequestsAtATime = 64;
constexpr int kWatchMs = 10;  // how often the loop looks at the engine while something waits for it
constexpr int kForEver = -1;

/// A name of a file of the device, which must not lead out of the directory that it is put into.
bool IsAcceptable(const std::string& name) {
    return !name.empty() && name.find('/') == std::string::npos && name.find("..") == std::string::npos;
}

/// A message that lacks bytes, or has some too many, does not come out the same when it is written again.
/// Only the server identifier may: the wire has room for more of it than counts.
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
      m_waiting(kPatience) {
    m_engine.SetPollPause(pollPauseMs);
}

TferService::~TferService() {
    Stop();
    if (m_wakeFd >= 0) close(m_wakeFd);
}

bool TferService::Start() {
    m_wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_wakeFd < 0 || !OpenControlFifo()) return false;
    tal_fileutils::MakeDirPath(kFlagDirectory, 0755, true);
    m_initThread = std::thread([this] { InitEngine(); });
    m_loopThread = std::thread([this] { Run(); });
    return true;
}

bool TferService::OpenControlFifo() {
    int status = ky_host::CreateIpcDirectory();
    const std::string directory = ky_host::IpcDirectory();
    if (status != KyIpcFifoSession::IPC_OK) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "Start", "cannot use %s for the FIFOs, status %d",
                        directory.c_str(), status);
        return false;
    }
    const int error = m_lock.Take(directory + kLockFile);
    if (error != 0) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "Start", "%s: %s",
                        error == EWOULDBLOCK ? "another transfer service is running" : "cannot take the lock",
                        strerror(error));
        return false;
    }
    status = m_control.OpenReadFifo(kControlFifo, ky_service::kControlFifoMode);
    if (status != KyIpcFifoSession::IPC_OK) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "Start", "cannot open %s/%s, status %d", directory.c_str(),
                        kControlFifo, status);
        return false;
    }
    return true;
}

void TferService::InitEngine() {
    const int status = m_engine.Init(m_deviceId, &m_link.Proxy());
    __dlog_printfex(KY_DLOG_NOTICE, kSource, "InitEngine", "the engine is ready, status %d", status);
    m_ready = true;
    eventfd_write(m_wakeFd, 1);
}

void TferService::Stop() {
    if (!m_initThread.joinable()) return;
    m_link.Abort();
    m_stop = true;
    eventfd_write(m_wakeFd, 1);
    m_engine.Stop();
    // Not there if the system gave no thread for it.
    if (m_loopThread.joinable()) m_loopThread.join();
    m_initThread.join();
    m_control.Close();
}

void TferService::Run() {
    while (!m_stop) {
        try {
            if (!WaitForWork()) continue;
            if (m_ready) DeliverChanges();
            TakeRequests();
            BeginDueTransactions();
        } catch (const std::exception& error) {
            __dlog_printfex(KY_DLOG_ERROR, kSource, "Run", "%s", error.what());
        }
    }
    RefuseWaiting();
}

// Those who still wait would otherwise not learn why they get nothing.
void TferService::RefuseWaiting() {
    try {
        while (const auto request = m_waiting.TakeDue(true))
            Answer(*request, kRefused, kEnding);
    } catch (const std::exception& error) {
        __dlog_printfex(KY_DLOG_ERROR, kSource, "Run", "%s", error.what());
    }
}

// False if there is nothing to do but to look at m_stop.
bool TferService::WaitForWork() {
    // Until the engine is ready its changes wait; they must not keep the loop awake.
    const int changes = m_ready ? m_link.ChangesDescriptor() : -1;
    struct pollfd sources[] = {
        {m_wakeFd, POLLIN, 0}, {m_control.ReadDescriptor(), POLLIN, 0}, {changes, POLLIN, 0}};
    const bool watching = !m_waiting.Empty() || m_listingDue;
    const int bound = m_moreRequests ? 0 : watching ? kWatchMs : kForEver;
    if (poll(sources, 3, bound) < 0) return false;
    eventfd_t wakes = 0;
    eventfd_read(m_wakeFd, &wakes);
    return !m_stop;
}

void TferService::DeliverChanges() {
    m_link.DeliverChanges([this](const KyValChgInfo& change) { m_engine.DataChange(change); });
}

// Takes so many at a time that callers who ask without end do not keep the loop from its other work.
void TferService::TakeRequests() {
    KyIpcMsgBuffer buffer(1024);
    m_moreRequests = true;
    for (int i = 0; i < kRequestsAtATime && m_moreRequests && !m_stop; ++i) {
        const int status = m_control.Read(&buffer, 0);
        // Others may have come in with one that there was no memory for, and nothing would tell of them.
        if (status == KyIpcFifoSession::IPC_NO_MEMORY) continue;
        m_moreRequests = status == KyIpcFifoSession::IPC_OK;
        if (!m_moreRequests) return;
        Take(buffer);
        if (m_ready) DeliverChanges();
    }
}

void TferService::Take(KyIpcMsgBuffer& buffer) {
    std::unique_ptr<KyTferMsg> message(KyTferMsgFactory::CreateMsgFromBuffer(&buffer));
    if (!message || !IsWhole(*message, buffer)) {
        __dlog_printfex(KY_DLOG_WARNING, kSource, "Take",
                        "dropped an unknown or damaged message of %d bytes, type %d", buffer.GetLength(),
                        KyTferMsg::PeekMsgType(buffer.GetBuf()));
        return;
    }
    if (message->GetMsgType() == KyTferMsg::TFER_MSG_STATUS) return AnswerStatus(*message);
    if (message->GetMsgType() == KyTferMsg::TFER_MSG_RESP) {
        __dlog_printfex(KY_DLOG_WARNING, kSource, "Take", "dropped a reply that nobody asked for");
        return;
    }
    if (!m_ready) return Answer(*message, kRefused, kStarting);
    if (!BeginsTransaction(*message)) return Cancel(*message);
    if (!m_waiting.Add(message)) Answer(*message, kRefused, kTooMany);
}

void TferService::Cancel(const KyTferMsg& request) {
    m_engine.CancelTransaction(request.GetTransId());
    std::string text = kCancelled;
    const bool removed = RefuseCancelled(request.GetTransId());
    const bool ended = Abandon(request.GetTransId(), text);
    Answer(request, ended || removed ? kAccepted : kRefused, removed ? kCancelled : text);
}

// Removes the waiting requests with this identifier. False if there is none.
bool TferService::RefuseCancelled(const std::string& transId) {
    bool removed = false;
    while (const auto waiting = transId.empty() ? nullptr : m_waiting.TakeById(transId)) {
        removed = true;
        Answer(*waiting, kRefused, kCancelled);
    }
    return removed;
}

// Why a cancel with this identifier must not end what the record shows; null if it may.
const char* TferService::WhyNotItsOwn(const std::string& transId, const KyTferStatusMsg& record) const {
    if (transId.empty()) return nullptr;
    if (m_begunBeside && IsInProgress(record)) return kNotAlone;
    return m_begunBeside || transId != m_begunId ? kNotThat : nullptr;
}

// Ends what is in progress if that is what the identifier names. False, and the reason, if nothing was ended.
bool TferService::Abandon(const std::string& transId, std::string& text) {
    const KyTferStatusMsg before = m_engine.GetStatus(transId);
    if (const char* const reason = WhyNotItsOwn(transId, before)) {
        text = reason;
        return false;
    }
    const KyTferStatusMsg record = m_engine.AbandonTransaction("");
    text = kNothing;
    // The record says so also if there was nothing to end, and the transaction before had been cancelled.
    if (!IsCancelled(record) || IsCancelled(before)) return false;
    m_listingDue = false;
    m_abandonedAt = RequestQueue::Clock::now();
    text = record.GetStatusMsg();
    return true;
}

// What a running worker causes belongs to its own transaction; after that was abandoned, it causes nothing.
bool TferService::WorkersMatter() const {
    const bool givenUp = m_abandonedAt && RequestQueue::Clock::now() - *m_abandonedAt >= kAbandonedPatience;
    return m_engine.WorkerRunning() && !givenUp;
}

void TferService::BeginDueTransactions() {
    while (!m_stop) {
        const bool quiet = !WorkersMatter();
        if (m_ready) DeliverChanges();
        // A listing that has come is read while the record still says where it is.
        KeepListing();
        const std::unique_ptr<KyTferMsg> request = m_waiting.TakeDue(quiet && !WorkersMatter());
        if (!request) return;
        Begin(*request);
    }
}

void TferService::Begin(KyTferMsg& request) {
    KyTferStatusMsg record(512);
    std::string transId = request.GetTransId();  // here, where it can fail: nothing has begun yet
    bool besideAnother = false;
    if (const auto* fetch = dynamic_cast<KyTferGetDevFile*>(&request)) {
        record = IsAcceptable(fetch->GetXferFileName())
                     ? m_engine.GetFileFromDevRequest(fetch->GetXferFileName(), fetch->GetXferFileSize())
                     : Refusal(kBadName);
    } else if (const auto* push = dynamic_cast<KyTferPutDevFile*>(&request)) {
        besideAnother = IsInProgress(m_engine.GetStatus(""));
        record = Push(push->GetSrcPath());
    } else {
        record = m_engine.GetDirectoryFromDevRequest();
        // A refused request leaves the listing due that is in progress.
        m_listingDue = m_listingDue || IsInProgress(record);
    }
    const bool accepted = IsInProgress(record);
    if (accepted) NoteBegun(std::move(transId), besideAnother);
    Answer(request, accepted ? kAccepted : kRefused, record.GetStatusMsg());
}

void TferService::NoteBegun(std::string transId, bool besideAnother) {
    m_begunId = std::move(transId);
    m_begunBeside = besideAnother;
    m_abandonedAt.reset();
}

KyTferStatusMsg TferService::Push(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos || path.front() != '/' || !IsAcceptable(path.substr(slash + 1))) {
        return Refusal(kBadName);
    }
    return m_engine.PutFileToDevRequest(path.substr(0, slash), path.substr(slash + 1));
}

void TferService::KeepListing() {
    if (!m_listingDue) return;
    const KyTferStatusMsg record = m_engine.GetStatus("");
    const bool isInPlace = record.GetReqType() == KyTferStatusMsg::TFER_REQ_DIRECTORY &&
                           record.GetStatus() == KyTferStatusMsg::TFER_STATUS_COMPLETE &&
                           record.GetFilePath() == KyTferClient::GetHmiDownloadDirectory();
    // The worker of an abandoned transaction may still run, so its end does not matter to a listing in place.
    if (!isInPlace && (IsInProgress(record) || m_engine.WorkerRunning())) return;
    m_listingDue = false;
    if (isInPlace) m_engine.CreateDirectoryFromFile(record.GetXferFullFilePath());
}

void TferService::AnswerStatus(const KyTferMsg& request) {
    KyTferStatusMsg record = m_ready ? m_engine.GetStatus(request.GetTransId()) : Refusal(kStarting);
    Send(request, record);
}

void TferService::Answer(const KyTferMsg& request, KyTferRespMsg::TferMsgResult result,
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
        // An empty FIFO takes a short answer at once: a full one belongs to a caller that does not read.
        session.SetWriteBound(buffer.GetLength() < kShortAnswer ? 0 : kAnswerBoundMs);
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
