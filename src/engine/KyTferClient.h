#ifndef ENGINE_KYTFERCLIENT_H
#define ENGINE_KYTFERCLIENT_H

#include <atomic>
#include <memory>
#include <string>

#include "messages/KyTferExport.h"
#include "messages/KyTferStatusMsg.h"
#include "platform/KyPldProxy.h"
#include "platform/KyValChgInfo.h"

namespace ky_engine {
struct Engine;
}

/// The transfer engine. Moves files between the card and one managed device, and keeps one status record, which shows
/// the current or last transaction.
///
/// Terms. A transaction is a fetch, a push or a listing. Points of the device carry requests and answers: the request
/// point 8602, the file name point 8603 and the file size point 8604. The module index is the number of the card among
/// the device's modules, counted from 1. The proxy writes arriving files to the landing directory; a complete file is
/// moved to the download directory.
///
/// States. A new engine is idle. Init binds it to a device; requests before the end of Init are refused. Stop ends the
/// engine for good: later requests are refused. The destructor calls Stop.
///
/// A fetch. GetFileFromDevRequest records the transaction, starts a monitor and writes the file's transfer name to the
/// request point. The device answers "READY" on that point, and DataChange receives the answer. A worker then fetches
/// the file into the landing directory, checks its size, moves it to the download directory and tells the device the
/// result. The monitor records the size of the arriving file, and ends the transaction 180 seconds after the request.
/// Later answers of the device do not change the record of a completed fetch.
///
/// Threads. Any thread may call any operation, with these exceptions. Init is called once, before all others except
/// Stop, SetPollPause and GetStatus. DataChange and CreateDirectoryFromFile are each called by one thread at a time.
/// From within a call of the proxy, only DataChange and GetStatus may be called.
///
/// Blocking. Init blocks for eight seconds or more. Requests block until the proxy has returned from their point
/// writes. GetStatus blocks for microseconds. Stop blocks until the engine's threads have ended: up to a second for
/// a monitor, and until running proxy calls return.
///
/// Locks. One lock guards the status record. It is held for assignments, one `stat` or one `unlink`, never during a
/// proxy call, a log line or a thread start. A second lock serialises the point writes of fetch and listing requests
/// and of AbandonTransaction. A thread that needs both takes the second lock first.
///
/// Memory. No operation throws, except that the constructor throws std::bad_alloc. A transaction that runs out of
/// memory ends as failed. A proxy call that throws counts as failed.
class KYTFER_EXPORT KyTferClient {
public:
    /// Creates an idle engine. Does not access the device or the file system. Throws std::bad_alloc.
    KyTferClient();

    /// Calls Stop. Does not access the device or the flag files.
    virtual ~KyTferClient();

    KyTferClient(const KyTferClient&) = delete;
    KyTferClient& operator=(const KyTferClient&) = delete;

    /// @{ @name Life of the engine

    /// Binds the engine to a device: finds the card's module index, creates the card's directories and negotiates
    /// the transport.
    ///
    /// Blocks until the module index has been found: eight seconds or more, and without limit while no module of the
    /// device has the card's MAC address. Stop ends the search; Init then continues with index 0. It also continues
    /// with index 0, at once, if the card has no MAC address or the device does not tell its modules.
    ///
    /// Accepts requests after its end, whatever the result is.
    ///
    /// @param deviceId  identifier of the managed device
    /// @param proxy     the device's proxy; not owned; must outlive the engine. With null, Init fails and every
    ///                  request is refused.
    /// @return 0 for success; otherwise a status of the proxy, or a negative number for a failure of the engine: no
    ///         proxy, an exception of the proxy, or no memory. Over Sorrel 485 it is the status of the write to the
    ///         file size point. Over USB it is the status of the first of the two USB points that cannot be read, 0
    ///         also if the device says that it does not support USB. See IsTferProtocolSupported.
    int Init(unsigned short deviceId, KyPldProxy* proxy);

    /// Ends the engine. After Stop has returned, no thread of the engine runs, and no operation on another thread calls
    /// the proxy. The engine makes no further proxy call, unless Init is called after Stop.
    ///
    /// Stop may be called several times, and before Init. Blocks as the class comment says. If Stop waits for more than
    /// 1.5 seconds, it logs that: usually a proxy call does not return.
    ///
    /// Must not be called from within a proxy call: that would deadlock.
    void Stop();

    /// Sets the pause between two polls of a monitor. Without a pause a monitor keeps a processor busy during its
    /// transaction. The pause ends at once when the worker ends, the transaction is abandoned or the engine stops.
    /// So the pause delays only the reported file size and the time limit.
    ///
    /// @param milliseconds  length of the pause; 0, the default of a new engine, for no pause
    void SetPollPause(unsigned int milliseconds);

    /// @}
    /// @{ @name Requests and status

    /// Requests a file from the device. Returns before the file arrives: GetStatus tells the progress and the result.
    /// Blocks for its point writes.
    ///
    /// @param fileName  the file's transfer name; not checked: the caller must refuse "/" and ".."
    /// @param fileSize  expected size in bytes; converted to an unsigned number. The fetch fails if the file has
    ///                  another size, unless the device announces that size.
    /// @return a copy of the record, in progress, if the request is accepted, even if the point writes fail. Otherwise
    ///         a separate record with TFER_STATUS_FAIL and the reason: a transaction is in progress, Init has not
    ///         ended, Stop was called, there is no device, or memory has run out.
    KyTferStatusMsg GetFileFromDevRequest(const std::string& fileName, int fileSize);

    /// Pushes a file to the device. The engine consumes the file: it moves the file to the staging directory
    /// "/var/local/tal/pldserver", where the file stays, or removes the file if the request fails. The file must be on
    /// the file system of that directory. The record has the transfer name: the device identifier, "-" and a counter.
    ///
    /// Blocks for its point writes and one second: the device needs that pause between size and name. A push is
    /// accepted while another transaction is in progress, and has no monitor and no time limit. Both transactions
    /// then continue, and the record shows the last update of either.
    ///
    /// @param directory  directory of the file, without a "/" at its end
    /// @param fileName   the file's name in `directory`; not checked: the caller must refuse ".."
    /// @return a copy of the record: in progress, or failed with the reason. Before the end of Init, after Stop and
    ///         without a device: a separate record with TFER_STATUS_FAIL; the file stays.
    KyTferStatusMsg PutFileToDevRequest(const std::string& directory, const std::string& fileName);

    /// Requests a listing of the device's files. The device names a listing file. A worker fetches this file like other
    /// files, but with a limit of 60 seconds. Read the file once the record is complete and its file path is the
    /// download directory. Blocks for the point writes.
    ///
    /// @return a copy of the record, in progress, if the request is accepted. Otherwise a separate record with
    ///         TFER_STATUS_FAIL and the reason: a transaction is in progress, the point write failed, Init has not
    ///         ended, Stop was called, there is no device, or memory has run out.
    KyTferStatusMsg GetDirectoryFromDevRequest();

    /// Returns a consistent copy of the status record. There is one record: `transactionId` is ignored. If memory runs
    /// out, the result is a separate record with TFER_STATUS_FAIL and the text "Out of memory".
    KyTferStatusMsg GetStatus(const std::string& transactionId);

    /// Logs a cancel request, and nothing else. AbandonTransaction ends a transaction.
    void CancelTransaction(const std::string& transactionId);

    /// Ends the transaction in progress as failed, with the text "File transfer cancelled". A fetch or listing in
    /// progress and a running push end together. A push alone ends only if the record shows that push in progress;
    /// otherwise the push continues. With nothing in progress, nothing changes. If the worker is moving a complete
    /// file, the transaction is not cancelled but completes.
    ///
    /// The next request is accepted at once. If the device has not answered a fetch or listing, "NONE" is written to
    /// the request point; a later "READY" starts nothing, unless another fetch has been accepted. A monitor exits
    /// within a second. The call ends the worker's proxy call with KyPldProxy::AbortTransfer. If the proxy does not
    /// implement that, the worker runs until its proxy call returns, then removes its file. The file of a push stays in
    /// the staging directory.
    ///
    /// Blocks while a complete file is moved, until fetch and listing requests in progress have written their points,
    /// and for its own point write.
    ///
    /// @param reason  appended to the text after ": "; empty to append nothing
    /// @return a copy of the record; if memory runs out, a separate record with TFER_STATUS_FAIL
    KyTferStatusMsg AbandonTransaction(const std::string& reason);

    /// Reads a blank-separated listing file and keeps the listing in the engine. No public operation returns a kept
    /// listing. A listing that is kept under the same path is not replaced. At most 16 listings are kept; the engine
    /// drops the least recently requested one. A file that cannot be read gives an empty listing. A damaged file gives
    /// the entries before the damage. If memory runs out, logs an error and keeps no new listing.
    ///
    /// Blocks while it reads the file.
    ///
    /// @param path  path of the listing file
    void CreateDirectoryFromFile(const std::string& path);

    /// True while a worker runs, including its last point writes. Does not block. Before the next request, a service
    /// should wait for false and then deliver all point changes: the device's reports of the worker's writes belong to
    /// the previous transaction.
    bool WorkerRunning() const;

    /// @}
    /// @{ @name The device

    /// Handles a change of a device point. Call it for every change of every point, in order, one at a time. Changes of
    /// points that the engine does not use are ignored. May start a thread. If the device names a listing file while
    /// the file of the previous listing is being moved, blocks until that file has been moved.
    ///
    /// Devices report the card's own writes too. A reported value that the card has written in the last two or three
    /// seconds is an echo: the engine does not take it for an answer. On the request point, a value is an echo only if
    /// the empty text was reported directly before it.
    ///
    /// @param info  the change; used during the call only
    void DataChange(const KyValChgInfo& info);

    /// Creates or removes the flag file "/var/tmp/dmp/dmp_supported", which tells other programs of the card that
    /// the device supports the USB transport (DMP). Logs a failure. Does not create the directory.
    ///
    /// @param supported  true creates the file, false removes it
    void SetDmpSupported(bool supported);

    /// Writes a string point of the device: the empty string, then the value. The device thus sees a change even if
    /// the point has the value already. Blocks for both writes.
    ///
    /// @return the proxy's status of the second write, 0 for success; not 0 without a device and after Stop
    int MaiStringSend(const std::string& value, unsigned short pointId);

    /// Reads a string point of the device. A failed read does not change `value`. Blocks for the read.
    ///
    /// @return the proxy's status, 0 for success; not 0 without a device and after Stop
    int MaiStringGet(std::string& value, unsigned short pointId);

    /// Searches the device's modules for the card's MAC address, and stores the module index after four equal reads,
    /// two seconds apart. Repeats the search until it succeeds or Stop is called. Blocks for eight seconds or more, but
    /// not if it returns false for another reason than Stop.
    ///
    /// @return true if the index was found; false after Stop, without a device or a MAC address, if memory runs out, or
    ///         if the device does not tell its modules: the report of point 6459, or the module count of that report
    bool AcquireMaiMmIdx();

    /// Sleeps in steps of a quarter of a second while `stop` is false.
    ///
    /// @param seconds  how long; 0 does not sleep
    /// @param stop     read before the first step and after each; never changed
    /// @return true after the whole time; false if `stop` is or becomes true
    static bool SleepUnlessStopped(unsigned int seconds, std::atomic<bool>& stop);

    /// @}
    /// @{ @name Results of Init

    /// True if Init has negotiated the Sorrel 485 transport: the device has reported a lowest and a highest protocol
    /// version other than 0.
    bool IsTferProtocolSupported() const;

    /// The download directory: the card's directory for fetched files, with a "/" at its end. Empty before the first
    /// Init, and if memory runs out. All engines of the process share it; the last Init sets it.
    static std::string GetHmiDownloadDirectory();

    /// The landing directory, where the proxy writes arriving files, with a "/" at its end. Empty before the first
    /// Init, and if memory runs out. All engines of the process share it; the last Init sets it.
    static std::string GetCardReceiveFileDirectory();

    /// @}
    /// @{ @name Bodies and entry points of the engine's threads
    ///
    /// The engine runs these bodies on its own threads; a user need not call them. If a user calls a body, it runs on
    /// the calling thread, for the current transaction, and blocks until it is done. An entry point takes a pointer to
    /// the KyTferClient, names the calling thread, runs the body and returns null. A null pointer does nothing.

    /// Fetches the file of the current transaction.
    void GetFileFromDevice();
    static void* GetFileFromDevThreadStart(void* engine);

    /// Monitors the current fetch.
    void MonitorGetFileRequest();
    static void* MonitorGetFileThreadStart(void* engine);

    /// Sends the last push's file to the device.
    void PutFileToDevice();
    static void* PutFileToDevThreadStart(void* engine);

    /// Keeps the record in progress while the monitors' active flag is set, at most 180 seconds, then sets the record
    /// to failed. The engine never runs this body.
    void MonitorPutFileRequest();
    static void* MonitorPutFileThreadStart(void* engine);

    /// Monitors the current listing.
    void MonitorGetDirRequest();
    static void* MonitorGetDirThreadStart(void* engine);

    /// @}

private:
    const std::unique_ptr<ky_engine::Engine> m_engine;
};

#endif
