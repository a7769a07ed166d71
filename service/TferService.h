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
#include "platform/KyFd.h"
#include "platform/KyIpcFifoSession.h"
#include "service/DeviceLink.h"
#include "service/RequestQueue.h"

class KyIpcMsgBuffer;

/// The transfer service: owns the engine, passes it the changes of the device's points, and answers the
/// requests that other processes write to the control FIFO (messages/KyServiceContract.h).
///
/// States. Start() opens the control FIFO and begins to search for the card's module in the device, which
/// takes at least eight seconds; until then requests are refused. Stop() is final.
///
/// Threads. One thread calls Start() and Stop(). The service starts two threads: one runs the engine's Init,
/// the other one runs a loop. The loop delivers changes, reads requests, makes the engine call of a request
/// and sends the reply, one at a time.
///
/// Queue. A request that begins a transaction waits up to eight seconds for the worker of the last
/// transaction: the changes that the worker causes must be delivered before the next transaction has its
/// record. A cancelled worker causes none and delays the next request by at most 0.1 seconds. Other requests
/// are answered meanwhile.
///
/// Cancel. An empty transaction identifier ends the transaction in progress. Any other identifier ends only
/// the transaction that was requested with it, and removes waiting requests that have it. Those are refused.
///
/// Replies. A fetch, directory or push request gets a KyTferRespMsg with kAccepted or kRefused and the status
/// message of the engine's record. A status request gets the record. A cancel request gets kAccepted if it
/// ended or removed something, otherwise kRefused and the reason. Damaged and unexpected messages are logged
/// and dropped. A reply to a caller that does not read blocks the loop for at most 50 milliseconds.
class TferService {
public:
    static constexpr unsigned int kDefaultPollPauseMs = 20;

    /// @param link         lives longer than the service
    /// @param pollPauseMs  milliseconds between two polls of an arriving file; 0 for no pause, which keeps a
    ///                     core busy
    TferService(unsigned short deviceId, DeviceLink& link, unsigned int pollPauseMs = kDefaultPollPauseMs);

    /// Calls Stop().
    ~TferService();

    TferService(const TferService&) = delete;
    TferService& operator=(const TferService&) = delete;

    /// Opens the control FIFO and starts the threads.
    ///
    /// @return false, with a line in the log, if another service runs or the FIFO cannot be opened
    bool Start();

    /// Aborts the device's calls, joins the threads and removes the control FIFO. Blocks for little more than
    /// a second. May be called again.
    void Stop();

private:
    bool OpenControlFifo();
    bool LockOutOthers(const std::string& directory);
    void InitEngine();

    // Called by the loop only.
    void Run();
    void RefuseWaiting();
    bool WaitForWork();
    void DeliverChanges();
    void ReadRequests();
    void Handle(KyIpcMsgBuffer& buffer);
    void Cancel(const KyTferMsg& request);
    bool RefuseCancelled(const std::string& transId);
    const char* CancelRefusal(const std::string& transId, const KyTferStatusMsg& record) const;
    bool CancelCurrent(const std::string& transId, std::string& text);
    bool MustWaitForWorker() const;
    void BeginDueTransactions();
    void Begin(KyTferMsg& request);
    KyTferStatusMsg Push(const std::string& path);
    void ReadListing();
    void ReplyWithRecord(const KyTferMsg& request);
    void Reply(const KyTferMsg& request, KyTferRespMsg::TferMsgResult result, const std::string& text);
    void Send(const KyTferMsg& request, KyTferMsg& reply);

    const unsigned short m_deviceId;
    DeviceLink& m_link;
    KyTferClient m_engine;
    KyFd m_lock;  // held while the service runs; the kernel releases it however the process ends
    KyIpcFifoSession m_control;
    KyFd m_wakeUp;  // event counter that makes the loop check m_stop and m_ready
    std::atomic<bool> m_ready{false};
    std::atomic<bool> m_stop{false};
    std::thread m_initThread;
    std::thread m_loopThread;

    // Used by the loop only.
    RequestQueue m_waiting;
    bool m_moreRequests = false;      // ReadRequests() stopped before the FIFO was empty
    bool m_listingDue = false;        // a directory request was accepted, and its listing has not been read
    std::string m_lastId;             // transaction identifier of the last accepted request
    bool m_lastIsSecondPush = false;  // that request was a push, and another transaction was in progress
    std::optional<RequestQueue::Clock::time_point> m_cancelledAt;  // set until the next transaction begins
};

#endif
