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

/// The transfer service: owns the engine, passes the changes of the device's points to it, and replies to the
/// requests that other processes write to the control FIFO (messages/KyServiceContract.h).
///
/// States. Start() opens the control FIFO and begins the engine's Init, which searches for the card's module
/// in the device and takes at least eight seconds. Until Init has ended, the service refuses all requests but
/// status requests. Stop() is final.
///
/// Threads. One thread calls Start() and Stop(). The service starts two threads: one runs the engine's Init,
/// the other one runs a loop. The loop delivers changes, reads requests, makes the engine call of a request
/// and sends the reply, one at a time.
///
/// Queue. A request that begins a transaction waits up to eight seconds for the worker of the previous
/// transaction: the changes that the worker causes must be delivered before the next transaction has its
/// record. The worker of a cancelled transaction causes no changes, and delays the next request by at most 0.1
/// seconds. The loop handles other requests meanwhile.
///
/// Cancel. An empty transaction identifier ends all transactions in progress. Any other identifier ends only
/// the transaction that was requested with this identifier, and removes waiting requests that have it. The
/// callers of removed requests get kRefused.
///
/// Replies. A fetch, listing or push request gets a KyTferRespMsg with kAccepted or kRefused and the status
/// message of the engine's record. A status request gets the record. A cancel request gets kAccepted if it
/// ended or removed something, otherwise kRefused and the reason. Damaged and unexpected messages are logged
/// and dropped. A reply of 4000 bytes or more blocks the loop for at most 50 milliseconds if the caller does not
/// read; a shorter reply does not block the loop.
class TferService {
public:
    static constexpr unsigned int kDefaultPollPauseMs = 20;

    /// @param deviceId     identifier of the managed device
    /// @param link         not owned; must outlive the service
    /// @param pollPauseMs  milliseconds between two polls of an arriving file; 0 for no pause, which keeps a
    ///                     core busy
    TferService(unsigned short deviceId, DeviceLink& link, unsigned int pollPauseMs = kDefaultPollPauseMs);

    /// Calls Stop().
    ~TferService();

    TferService(const TferService&) = delete;
    TferService& operator=(const TferService&) = delete;

    /// Opens the control FIFO and starts the threads.
    ///
    /// @return false if another service runs or the FIFO cannot be opened, with a line in the log; false without
    ///         a line if the system has no descriptor left. Throws std::system_error if it has no thread left
    bool Start();

    /// Aborts the proxy's calls, joins the threads and removes the control FIFO. Blocks for little more than a
    /// second if the proxy's calls end at once. May be called again.
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
