#ifndef SERVICE_TFERSERVICE_H
#define SERVICE_TFERSERVICE_H

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "engine/KyTferClient.h"
#include "messages/KyServiceContract.h"
#include "platform/KyIpcFifoSession.h"
#include "service/DeviceLink.h"
#include "service/RequestQueue.h"
#include "service/ServiceLock.h"

class KyIpcMsgBuffer;

/// The transfer service: owns the engine, hands it the changes of the device's points, and answers the
/// requests of other processes, which come in over the control FIFO "tfersvc-CtrlFifo".
///
/// States. Start makes it the one service of the machine and begins to bind the engine to the device, which
/// takes eight seconds at least; requests are refused until then. Stop ends it for good.
///
/// Threads. Start and Stop are called from one thread. The service has two of its own: one that runs the
/// engine's Init, and a loop that does everything else, one thing at a time: deliver changes, take a request,
/// make the one engine call that it asks for, answer. A request that begins a transaction waits up to eight
/// seconds, while the loop goes on, for the worker of the last one to end: the changes that it caused are
/// then delivered before the new transaction has its record. A cancelled worker causes none, so it is waited
/// for a tenth of a second only.
///
/// Cancelling. A cancel request ends at once whatever is in progress if its transaction identifier is empty.
/// With an identifier it ends only the transaction whose request had the same one, and removes waiting
/// requests that have it; these are answered as refused.
///
/// Answers. A fetch, directory or push request gets a KyTferRespMsg with kAccepted or kRefused and the status
/// message of the engine's record; a status request the record itself. A cancel request gets kAccepted if it
/// has ended or removed something, otherwise kRefused with the reason. A message that is damaged, or asks for
/// nothing, is logged and dropped. The loop waits a twentieth of a second at most for a caller to take its
/// answer.
class TferService {
public:
    static constexpr unsigned int kDefaultPollPauseMs = 20;

    /// @param link         the way to the device; lives longer than the service
    /// @param pollPauseMs  milliseconds between two looks of a monitor at the arriving file; 0 for none, which
    ///                     keeps a core busy
    TferService(unsigned short deviceId, DeviceLink& link, unsigned int pollPauseMs = kDefaultPollPauseMs);

    /// Stops the service if Stop was not called.
    ~TferService();

    TferService(const TferService&) = delete;
    TferService& operator=(const TferService&) = delete;

    /// Opens the control FIFO and starts the threads.
    ///
    /// @return false, with a line in the log, if another service runs or the FIFO cannot be made
    bool Start();

    /// Aborts the device, ends the threads and removes the control FIFO. Takes little more than a second at
    /// most. Calling it again does no harm.
    void Stop();

private:
    bool OpenControlFifo();
    void InitEngine();

    // The loop's.
    void Run();
    void RefuseWaiting();
    bool WaitForWork();
    void DeliverChanges();
    void TakeRequests();
    void Take(KyIpcMsgBuffer& buffer);
    void Cancel(const KyTferMsg& request);
    bool RefuseCancelled(const std::string& transId);
    const char* WhyNotItsOwn(const std::string& transId, const KyTferStatusMsg& record) const;
    bool Abandon(const std::string& transId, std::string& text);
    bool WorkersMatter() const;
    void BeginDueTransactions();
    void Begin(KyTferMsg& request);
    void NoteBegun(std::string transId, bool besideAnother);
    KyTferStatusMsg Push(const std::string& path);
    void KeepListing();
    void AnswerStatus(const KyTferMsg& request);
    void Answer(const KyTferMsg& request, KyTferRespMsg::TferMsgResult result, const std::string& text);
    void Send(const KyTferMsg& request, KyTferMsg& reply);

    const unsigned short m_deviceId;
    DeviceLink& m_link;
    KyTferClient m_engine;
    ServiceLock m_lock;
    KyIpcFifoSession m_control;
    int m_wakeFd = -1;  // an event counter: the loop is to look at m_stop, or the engine is ready
    std::atomic<bool> m_ready{false};
    std::atomic<bool> m_stop{false};
    std::thread m_initThread;
    std::thread m_loopThread;

    // The loop's alone.
    RequestQueue m_waiting;
    bool m_moreRequests = false;  // the last round did not take all that had come
    bool m_listingDue = false;    // a directory request has been accepted, and its listing has not been read
    std::string m_begunId;        // transaction identifier of the last request that was accepted
    bool m_begunBeside = false;   // that was a push, and another transaction was in progress
    // When a transaction was abandoned, until the next one begins.
    std::optional<RequestQueue::Clock::time_point> m_abandonedAt;
};

#endif
