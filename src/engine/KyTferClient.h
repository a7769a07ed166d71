#ifndef ENGINE_KYTFERCLIENT_H
#define ENGINE_KYTFERCLIENT_H

#include <pthread.h>

#include <atomic>
#include <map>
#include <string>
#include <string_view>

#include "engine/KyEngineThreads.h"
#include "engine/KyRequestMutex.h"
#include "engine/KyThreadAnnotations.h"
#include "messages/KyTferExport.h"
#include "messages/KyTferStatusMsg.h"
#include "platform/KyPldProxy.h"
#include "platform/KyTimerMgr.h"
#include "platform/KyValChgInfo.h"

class KyTferDirectory;

/// The transfer engine: moves files between the card and one managed device, one transaction at a time, and
/// keeps the state of that transaction as a status record.
///
/// States. Constructed, an engine does nothing. Init binds it to a device; from then on it takes requests and
/// point changes. Stop ends its threads for good; after it only destruction is left, and a request is
/// refused. The destructor stops an engine that was not stopped.
///
/// A fetch. GetFileFromDevRequest records the transaction, starts a monitor and writes the file's name to the
/// device's request point. When the device answers "READY", which reaches the engine through DataChange, a
/// worker fetches the file into the landing directory, checks its size, moves it into the download directory
/// and answers the device. The monitor meanwhile reports the size of the arriving file in the record, and
/// ends the transaction when 180 seconds have passed. A fetch that its worker has completed stays complete.
///
/// Threads. Requests, GetStatus, CancelTransaction and Stop may be called from any thread, requests one at a
/// time. DataChange is called for one change after the other. Init is called once, before all others but
/// Stop.
///
/// Blocking. Init takes eight seconds at least, see there. Requests block for their point writes, as long as
/// the proxy takes for them; GetStatus for some microseconds; Stop until the engine's threads have ended,
/// which takes a second after a fetch in progress and, since the engine cannot interrupt the proxy, as long
/// as a proxy call that is under way.
///
/// Locks. `m_requestMutex` guards the status record and the name and size of the file in transfer. It is held
/// for a few assignments or one `stat`, and never around a call of the proxy, a log line or the start of a
/// thread. The lock of the thread list is taken inside of none.
///
/// No operation throws. A proxy that throws is taken for one that failed.
class KYTFER_EXPORT KyTferClient {
public:
    /// An engine without a device. Touches neither device nor file system.
    KyTferClient();

    /// Stops the engine if Stop was not called. Neither the device nor the flag files are touched.
    virtual ~KyTferClient();

    KyTferClient(const KyTferClient&) = delete;
    KyTferClient& operator=(const KyTferClient&) = delete;

    /// Binds the engine to a device: finds the card's module index there, creates the card's directories and
    /// agrees with the device on a transport.
    ///
    /// Blocks until the module index has been found, which takes about eight seconds, or for ever if the
    /// device does not know the card; Stop ends the search, and the rest is then done without an index.
    ///
    /// @param deviceId  identifier of the managed device
    /// @param proxy     the way to it; stays the caller's and must live until the engine is destroyed. Null
    ///                  lets Init run through and fail, and every request be refused.
    /// @return 0 for success. Over the Sorrel 485 transport it is the status of setting the device's file
    ///         size point, over USB that of the read that failed or 0. IsTferProtocolSupported tells which it
    ///         is.
    int Init(unsigned short deviceId, KyPldProxy* proxy);

    /// Ends the engine: its threads have ended when it returns, and so have the calls of other threads that
    /// may reach the proxy. The engine makes no further call to the proxy, unless Init is called after it.
    /// Calling it again, or before Init, does no harm.
    ///
    /// A proxy may call Stop from within a call made to it; that one call is then not waited for.
    void Stop();

    /// Tells the rest of the card whether the device supports the USB transport: creates or removes the flag
    /// file "/var/tmp/dmp/dmp_supported". A failure is logged. The directory is not created.
    void SetDmpSupported(bool supported);

    /// True if Init has agreed on the Sorrel 485 transport with the device.
    bool IsTferProtocolSupported() const;

    /// The card's directory for files fetched from the device, with a "/" at its end; empty before the first
    /// Init. The last Init of the process decides.
    static std::string GetHmiDownloadDirectory();

    /// The directory into which the proxy delivers files of the device, with a "/" at its end; empty before
    /// the first Init. The last Init of the process decides.
    static std::string GetCardReceiveFileDirectory();

    /// Writes a string point of the device: the empty string first and then the value, so that the device
    /// sees a change even if it is the value that the point has. Blocks for both writes.
    ///
    /// @return the proxy's status of the second write, 0 for success; the first one's does not count. Another
    ///         value also without a device and after Stop
    int MaiStringSend(const std::string& value, unsigned short pointId);

    /// Reads a string point of the device into `value`, which a failed read leaves as it was. Blocks for the
    /// read.
    ///
    /// @return the proxy's status, 0 for success; another value also without a device and after Stop
    int MaiStringGet(std::string& value, unsigned short pointId);

    /// Searches the device's modules for this card's MAC address and keeps the index at which four reads, two
    /// seconds apart, have found it. Repeats the search until it has succeeded or Stop is called, and so
    /// blocks for eight seconds or more.
    ///
    /// @return true if the index was found; false if the device has no such report, or after Stop
    bool AcquireMaiMmIdx();

    /// Sleeps in steps of a quarter of a second, as long as `stop` is false.
    ///
    /// @param seconds  how long; 0 does not sleep
    /// @param stop     looked at before the first and after every step, never changed
    /// @return true after the whole time; false if `stop` was or became true
    static bool SleepUnlessStopped(unsigned int seconds, std::atomic<bool>& stop);

    /// Takes a change of one of the device's points. Called for every change, in their order and one at a
    /// time; points that do not matter are ignored. May start a thread; does not wait for it.
    void DataChange(const KyValChgInfo& info);

    /// A copy of the status record, all of it taken at one instant. The engine has one transaction at a time
    /// and gives its record whatever the identifier. If memory runs out, the record is a failed one with that
    /// text.
    KyTferStatusMsg GetStatus(const std::string& transactionId);

    /// Notes in the log that somebody wishes to cancel. The transaction goes on.
    void CancelTransaction(const std::string& transactionId);

    /// Asks the device for one of its files.
    ///
    /// @param fileName  the file's name on the device
    /// @param fileSize  its size in bytes, taken as an unsigned number; a file that arrives with another size
    ///                  has failed
    /// @return a copy of the record, in progress, when the request is accepted; otherwise a separate record
    ///         with TFER_STATUS_FAIL and the reason: a transaction is in progress, or there is no device
    KyTferStatusMsg GetFileFromDevRequest(const std::string& fileName, int fileSize);

    /// Body of the worker: fetches the file that the record names. Runs on a thread of the engine.
    void GetFileFromDevice();

    /// Entry of the worker's thread. @param engine the KyTferClient @return null
    static void* GetFileFromDevThreadStart(void* engine);

    /// Body of the fetch monitor. Runs on a thread of the engine.
    void MonitorGetFileRequest();

    /// Entry of the fetch monitor's thread. @param engine the KyTferClient @return null
    static void* MonitorGetFileThreadStart(void* engine);

    /// Hands a file of the card to the device. The file is consumed, whatever comes of it: it is moved into
    /// the staging directory "/var/local/tal/pldserver", where it stays after the transfer, or removed if the
    /// request fails. It must lie on that directory's file system.
    ///
    /// Blocks for at least a second, which the device needs between the file's size and its name. A push does
    /// not ask whether another transaction is in progress, shares its record, and is watched by no monitor.
    ///
    /// @param directory  directory of the file, without a "/" at its end
    /// @param fileName   the file's name in it
    /// @return a copy of the record: in progress, or failed with the reason. Without a device it is a
    ///         separate record with TFER_STATUS_FAIL, and the file is left alone.
    KyTferStatusMsg PutFileToDevRequest(const std::string& directory, const std::string& fileName);

    /// Body of the push worker: pushes the file that the record names. Runs on a thread of the engine.
    void PutFileToDevice();

    /// Entry of the push worker's thread. @param engine the KyTferClient @return null
    static void* PutFileToDevThreadStart(void* engine);

    /// Body of a push monitor, which knows nothing to look for: it holds the record in progress while a
    /// transaction is active, up to 180 seconds, and fails it. No operation of the engine starts it.
    void MonitorPutFileRequest();

    /// Entry of the push monitor's thread. @param engine the KyTferClient @return null
    static void* MonitorPutFileThreadStart(void* engine);

    /// Asks the device for a listing of its files. The file that it names in answer is fetched like any
    /// other, within 60 seconds; when the record is complete, CreateDirectoryFromFile can read it.
    ///
    /// @return a copy of the record, in progress, when the request is accepted; otherwise a separate record
    ///         with TFER_STATUS_FAIL and the reason: a transaction is in progress, the device did not take
    ///         the request, or there is no device
    KyTferStatusMsg GetDirectoryFromDevRequest();

    /// Body of the directory monitor. Runs on a thread of the engine.
    void MonitorGetDirRequest();

    /// Entry of the directory monitor's thread. @param engine the KyTferClient @return null
    static void* MonitorGetDirThreadStart(void* engine);

    /// Reads a fetched listing file into a listing that the engine keeps under `path` for its whole life. A
    /// listing that it has under the very same path already stays, and the new one is dropped. A file that
    /// cannot be read gives an empty listing; one that is damaged gives the entries before the damage.
    ///
    /// Not to be called at the same time from two threads. Blocks for the reading of the file.
    void CreateDirectoryFromFile(const std::string& path);

    /// True while a worker has been started and has not returned. A service that waits for false before the
    /// next request, and delivers the point changes until then, keeps the end of one transaction out of the
    /// next.
    bool WorkerRunning() const;

private:
    struct FetchJob;
    struct MonitorFlow;
    struct PollResult;

    // Lifecycle and negotiation.
    int Negotiate();
    int NegotiateSorrel485();
    int ProbeUsb(int minVersionStatus);
    void PublishUsbSpeed(unsigned int maxUsbSpeed);
    void SetDirectories();
    static std::string LandingDirectory();
    static std::string DownloadDirectory();
    unsigned int XferFileSize();
    void TraceLimits() const;

    // Points.
    int ReadPoint(unsigned int& value, unsigned short pointId);
    int ReadPoint(std::atomic<unsigned int>& member, unsigned short pointId);
    int WritePoint(unsigned int value, unsigned short pointId);
    int SendString(const std::string& value, unsigned short pointId);
    bool FindModule();
    int WriteString(const char* value, unsigned short pointId);
    void FetchThroughProxy(const std::string& name);
    bool PushThroughProxy(const std::string& directory, const std::string& origName,
                          const std::string& xferName);
    int ReadString(std::string& value, unsigned short pointId, unsigned short mmIdx);
    bool GetModuleCount(unsigned int& count);
    bool SearchModules(unsigned int count, const std::string& mac);
    bool ConfirmModule(unsigned short mmIdx, const std::string& mac);

    // Value changes.
    void FileNameChanged(const KyValChgInfo& info);
    void FileSizeChanged(const KyValChgInfo& info);
    void DmpSupportedChanged(const KyValChgInfo& info);
    void FileRequestChanged(const KyValChgInfo& info);
    void ActOnAnswer(const std::string& answer);
    void DirectoryAnswered(const std::string& answer, unsigned long long transaction);

    // Transactions.
    template <typename Request>
    KyTferStatusMsg Admit(const char* function, Request request);
    static void Fail(KyTferStatusMsg& result, const char* reason);
    static void Refuse(KyTferStatusMsg& result, const char* function, const char* reason);
    unsigned long long BeginTransaction() KY_REQUIRES(m_requestMutex);
    bool IsCurrent(unsigned long long transaction) const KY_REQUIRES(m_requestMutex);
    // What puts texts into the record: all of them, or it throws std::bad_alloc and leaves the record as
    // it was.
    void Keep(KyTferStatusMsg& next) KY_REQUIRES(m_requestMutex);
    void Accept(KyTferStatusMsg& next, KyTferStatusMsg& result) KY_REQUIRES(m_requestMutex);
    void Record(KyTferStatusMsg::TferStatus status, std::string_view text) KY_REQUIRES(m_requestMutex);
    void SetRequestType(KyTferStatusMsg::TferRequestType type) KY_REQUIRES(m_requestMutex);
    unsigned long long TransactionOfThisThread();
    void RunGuarded(void (KyTferClient::*body)());
    void EndForWantOfMemory(bool isFetchWorker);
    void RecordNoMemory(unsigned long long transaction) KY_REQUIRES(m_requestMutex);
    void NoteUnwatched(unsigned long long transaction);
    void StartFetchWorker(unsigned long long transaction, pthread_t& handle);
    void EndUnwatched();
    static void* RunThread(void* engine, const char* name, void (KyTferClient::*body)());

    // Fetch.
    void RequestFetch(const std::string& fileName, unsigned int fileSize, KyTferStatusMsg& result);
    unsigned long long AcceptFetch(const std::string& fileName, unsigned int fileSize,
                                   KyTferStatusMsg& result);
    void FetchFile();
    bool BeginFetch(FetchJob& job);
    void EndFetch(const FetchJob& job);
    void FetchedNothing(const FetchJob& job);
    void FetchedWhole(const FetchJob& job);
    void FetchedOtherSize(const FetchJob& job, unsigned long long size);
    void RecordFailedFetch(const FetchJob& job, const std::string& text);
    void RecordCompletedFetch(const FetchJob& job, const std::string& downloadDir, const std::string& text);
    PollResult PollFetch(unsigned long long transaction) KY_REQUIRES(m_requestMutex);
    void EndFetchByTime(unsigned long long transaction, bool afterTimeOut) KY_REQUIRES(m_requestMutex);

    // Push.
    void RequestPush(const std::string& directory, const std::string& fileName, KyTferStatusMsg& result);
    void PushFile();
    void HoldRecordForPush();
    bool Stage(const std::string& sourcePath, const std::string& stagedPath, KyTferStatusMsg& result);
    bool MeasureStaged(const std::string& stagedPath, unsigned int& size, KyTferStatusMsg& result);
    void RecordFailedStaging(const std::string& text, KyTferStatusMsg& result);
    unsigned long long AnnouncePush(const std::string& fileName, const std::string& stagedPath,
                                    unsigned int size, KyTferStatusMsg& result);
    unsigned long long RecordPush(const std::string& fileName, const std::string& xferName, bool accepted,
                                  KyTferStatusMsg& result);
    void RecordPushEnd(unsigned long long transaction, KyTferStatusMsg::TferStatus status, const char* text);
    std::string NextTransferName();

    // Directory.
    bool IsInProgress();
    void RequestDirectory(KyTferStatusMsg& result);
    void RefuseDirectory(int status, KyTferStatusMsg& result);
    unsigned long long RecordDirectoryRequest(KyTferStatusMsg& result);
    PollResult PollDirectory(unsigned long long transaction) KY_REQUIRES(m_requestMutex);
    void TimeOutDirectory() KY_REQUIRES(m_requestMutex);
    void EndDirectoryByTime(unsigned long long transaction, bool afterTimeOut) KY_REQUIRES(m_requestMutex);
    void FreeListings();

    // Monitors.
    void WatchFetch();
    void WatchDirectory();
    static long long WallClockSeconds();
    static void LogStart(int level, const char* function, long long start, long long end);
    static unsigned int CountOf(unsigned long long size);
    static bool GetFileSize(const std::string& path, unsigned long long& size);
    // True if a file of that name would not lie in the directory that the name is appended to. Such a file is
    // taken for absent: a device that chooses names must not lead to the card's own files.
    static bool LeavesDirectory(const std::string& name);
    void Watch(const MonitorFlow& flow);
    PollResult PollOnce(const MonitorFlow& flow, unsigned long long transaction, long long end);
    static void LogPoll(const MonitorFlow& flow, const PollResult& result, unsigned int& sizeLogged);
    void Describe(PollResult& result) const KY_REQUIRES(m_requestMutex);
    void MeasureArrivingFile(PollResult& result) KY_REQUIRES(m_requestMutex);
    PollResult RecordProgress(PollResult result, unsigned long long transaction, std::string_view arrivedText,
                              const char* farewell) KY_REQUIRES(m_requestMutex);

    static std::string s_sorLandingDir;
    static std::string s_downloadDir;
    static std::atomic<int> m_genPutFileName;  // number of the next pushed file's transfer name

    std::atomic<bool> m_transactionActive{true};
    std::atomic<bool> m_stopRequested{false};
    std::atomic<bool> m_initialized{false};
    std::atomic<unsigned short> m_deviceId{0};
    std::atomic<unsigned int> m_serverMinVersion{0};
    std::atomic<unsigned int> m_serverMaxVersion{0};
    std::atomic<unsigned int> m_serverMaxFileSize{0};
    std::string m_xferFileName KY_GUARDED_BY(m_requestMutex);
    unsigned int m_xferFileSize KY_GUARDED_BY(m_requestMutex) = 0;
    std::map<std::string, KyTferDirectory*> m_directoryMap;  // owned, by the path of the listing file
    std::string m_currentRequest;                            // used by DataChange alone
    std::atomic<unsigned short> m_maiMmIdx{0};
    int m_physicalSlot = -1;
    KyTimerMgr m_timerMgr;
    unsigned short m_timerId = KyTimerMgr::INVALID_TIMER_ID;
    std::atomic<KyPldProxy*> m_pldProxy{nullptr};  // not owned
    KyTferStatusMsg m_status KY_GUARDED_BY(m_requestMutex);

    // The last thread started of each kind; m_threads keeps those that have to be waited for.
    pthread_t m_getDirMonitorThread{};
    pthread_t m_getFileMonitorThread{};
    pthread_t m_putFileMonitorThread{};
    pthread_t m_dirFileFetchThread{};
    pthread_t m_fileFetchThread{};
    pthread_t m_putFileThread{};
    KyRequestMutex m_requestMutex;

    // The number of the transaction in the record, one higher with every accepted fetch or directory request.
    // A thread whose transaction has another number is late: it changes neither record nor flag.
    unsigned long long m_transaction KY_GUARDED_BY(m_requestMutex) = 1;
    // The last transactions that their own workers completed and failed; 0 for none.
    unsigned long long m_completedByWorker KY_GUARDED_BY(m_requestMutex) = 0;
    unsigned long long m_failedByWorker KY_GUARDED_BY(m_requestMutex) = 0;
    // The last transaction whose monitor could not be started; 0 for none.
    unsigned long long m_unwatched KY_GUARDED_BY(m_requestMutex) = 0;
    // The record's request type, for reading it without the mutex.
    std::atomic<KyTferStatusMsg::TferRequestType> m_requestType{KyTferStatusMsg::TFER_REQ_NONE};
    KyEngineThreads m_threads;
};

#endif
