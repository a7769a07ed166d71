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

/// The transfer engine. Moves files between the card and one managed device, and keeps a status record of the
/// transaction.
///
/// States. A new engine is idle. Init binds it to a device; requests before the end of Init are refused. Stop ends the
/// engine for good: later requests are refused. The destructor calls Stop.
///
/// A fetch. GetFileFromDevRequest records the transaction, starts a monitor and writes the file's name to the
/// device's request point. The device answers "READY", which DataChange delivers. A worker then fetches the file
/// into the landing directory, checks its size, moves it to the download directory and answers the device. The
/// monitor records the size of the arriving file, and ends the transaction after 180 seconds. Later answers of the
/// device do not change the record of a completed fetch.
///
/// Threads. Any thread may call any operation, with these exceptions. Init is called once, before all others except
/// Stop. DataChange and CreateDirectoryFromFile are each called by one thread at a time. A call of the proxy may call
/// back DataChange and GetStatus only.
///
/// Blocking. Init blocks for eight seconds or more. Requests block until the proxy has returned from their point
/// writes. GetStatus blocks for microseconds. Stop blocks until the engine's threads have ended: up to a second for
/// a monitor, and until running proxy calls return.
///
/// Locks. One lock guards the status record. It is held for assignments, one `stat` or one `unlink`, never during a
/// proxy call, a log line or a thread start. A second lock serialises the point writes of fetch and listing requests
/// and of AbandonTransaction. The second lock is taken first.
///
/// Memory. No operation throws. A transaction that runs out of memory ends as failed. Only the constructor throws
/// std::bad_alloc. A proxy call that throws counts as failed.
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
    /// device has the card's MAC address. Stop ends the search; Init then continues without an index.
    ///
    /// @param deviceId  identifier of the managed device
    /// @param proxy     the device's proxy; not owned; must outlive the engine. With null, Init fails and every
    ///                  request is refused.
    /// @return 0 for success. Over Sorrel 485: the status of the write to the device's file size point. Over USB: the
    ///         status of the failed read, or 0. See IsTferProtocolSupported.
    int Init(unsigned short deviceId, KyPldProxy* proxy);

    /// Ends the engine. After it returns, no thread of the engine runs, and no operation on another thread calls
    /// the proxy. The engine makes no further proxy call, unless Init is called after it.
    /// Calling it again, or before Init, is allowed. A wait of more than 1.5 seconds is logged: usually a proxy call
    /// does not return.
    ///
    /// Must not be called from within a proxy call: that would deadlock.
    void Stop();

    /// Sets the pause between two polls of a monitor. Without a pause a monitor keeps a processor busy during its
    /// transaction. The pause ends at once when the worker ends, the transaction is abandoned or the engine stops.
    /// So it delays only the reported file size and the time limit.
    ///
    /// @param milliseconds  0, the default, for no pause
    void SetPollPause(unsigned int milliseconds);

    /// @}
    /// @{ @name Requests and status

    /// Requests a file from the device.
    ///
    /// @param fileName  the file's transfer name
    /// @param fileSize  its size in bytes, as an unsigned number. The fetch fails if another size arrives.
    /// @return a copy of the record, in progress, if the request is accepted. Otherwise a separate record with
    ///         TFER_STATUS_FAIL and the reason: a transaction is in progress, or there is no device.
    KyTferStatusMsg GetFileFromDevRequest(const std::string& fileName, int fileSize);

    /// Pushes a file to the device. The engine consumes the file: it moves the file to the staging directory
    /// "/var/local/tal/pldserver", where the file stays, or removes the file if the request fails. The file must be
    /// on the file system of that directory.
    ///
    /// Blocks for its point writes and one second: the device needs that pause between size and name. A push is
    /// accepted while another transaction is in progress, and has no monitor and no time limit. Both transactions
    /// then continue, and the record shows the last update of either.
    ///
    /// @param directory  directory of the file, without a "/" at its end
    /// @param fileName   the file's name in it
    /// @return a copy of the record: in progress, or failed with the reason. Without a device: a separate record with
    ///         TFER_STATUS_FAIL; the file stays.
    KyTferStatusMsg PutFileToDevRequest(const std::string& directory, const std::string& fileName);

    /// Requests a listing of the device's files. The device names a listing file, which is fetched like other files,
    /// with a limit of 60 seconds. CreateDirectoryFromFile reads it once the record is complete.
    ///
    /// @return a copy of the record, in progress, if the request is accepted. Otherwise a separate record with
    ///         TFER_STATUS_FAIL and the reason: a transaction is in progress, the point write failed, or there is no
    ///         device.
    KyTferStatusMsg GetDirectoryFromDevRequest();

    /// Returns a consistent copy of the status record. There is one record; the identifier is ignored. If memory runs
    /// out, the result is a separate failed record with that text.
    KyTferStatusMsg GetStatus(const std::string& transactionId);

    /// Logs a cancel request, and nothing else. AbandonTransaction ends a transaction.
    void CancelTransaction(const std::string& transactionId);

    /// Ends the transfer in progress as failed, with the text "File transfer cancelled". A fetch or listing in
    /// progress and a running push end together. A push alone ends only if the record shows it in progress; otherwise
    /// it continues. With nothing in progress, nothing changes. While a complete file is moved, its transaction is not
    /// cancelled but completes.
    ///
    /// The next request is accepted at once. If the device has not answered a fetch or listing, "NONE" is written to
    /// its request point; a later "READY" starts nothing, unless another fetch has been accepted. A monitor exits
    /// within a second. KyPldProxy::AbortTransfer is called; without it the worker runs until its proxy call returns,
    /// then removes its file. The file of a push stays staged.
    ///
    /// Blocks while a complete file is moved, until fetch and listing requests in progress have written their points,
    /// and for its own point write.
    ///
    /// @param reason  added to the text after ": "; may be empty
    /// @return a copy of the record
    KyTferStatusMsg AbandonTransaction(const std::string& reason);

    /// Reads a fetched listing file and keeps the listing under `path` until the engine is destroyed. Does not replace
    /// a listing that is kept under `path`. At most 16 are kept; the least recently requested one is dropped. A file
    /// that cannot be read gives an empty listing. A damaged one gives the entries before the damage.
    ///
    /// Blocks while it reads the file.
    void CreateDirectoryFromFile(const std::string& path);

    /// True from the start of a worker until it has returned. Before the next request a service should wait for false
    /// and deliver all point changes: the device's reports of the last worker's writes belong to the old transaction.
    bool WorkerRunning() const;

    /// @}
    /// @{ @name The device

    /// Handles a change of a device point. Call it for every change, in order, one at a time; other points are
    /// ignored. May start a thread. Blocks while the complete file of the previous listing is moved.
    ///
    /// Devices report the card's own writes too. A value that the card has written in the last two or three seconds
    /// is an echo. On the request point it is an echo only if the empty text came before it.
    void DataChange(const KyValChgInfo& info);

    /// Creates or removes the flag file "/var/tmp/dmp/dmp_supported", which tells other programs of the card whether
    /// the device supports the USB transport. Logs a failure. Does not create the directory.
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

    /// Searches the device's modules for the card's MAC address, and keeps the module's index after four equal reads,
    /// two seconds apart. Repeats the search until it succeeds or Stop is called. Blocks for eight seconds or more.
    ///
    /// @return true if the index was found; false after Stop, without a MAC address, or if the device has no such
    ///         report or no module count
    bool AcquireMaiMmIdx();

    /// Sleeps in steps of a quarter of a second while `stop` is false.
    ///
    /// @param seconds  how long; 0 does not sleep
    /// @param stop     read before the first step and after each; never changed
    /// @return true after the whole time; false if `stop` is or becomes true
    static bool SleepUnlessStopped(unsigned int seconds, std::atomic<bool>& stop);

    /// @}
    /// @{ @name Results of Init

    /// True if Init has negotiated the Sorrel 485 transport.
    bool IsTferProtocolSupported() const;

    /// The download directory: the card's directory for fetched files, with a "/" at its end. Empty before the first
    /// Init; set by the process's last Init.
    static std::string GetHmiDownloadDirectory();

    /// The landing directory: the proxy writes arriving files there. With a "/" at its end. Empty before the first
    /// Init; set by the process's last Init.
    static std::string GetCardReceiveFileDirectory();

    /// @}
    /// @{ @name Bodies and entry points of the engine's threads
    ///
    /// The engine runs the bodies on its own threads. A user's call runs a body on the calling thread, for the
    /// current transaction. An entry point takes the KyTferClient, names the calling thread, runs the body and returns
    /// null.

    /// Fetches the file of the current transaction.
    void GetFileFromDevice();
    static void* GetFileFromDevThreadStart(void* engine);

    /// Monitors the current fetch.
    void MonitorGetFileRequest();
    static void* MonitorGetFileThreadStart(void* engine);

    /// Sends the last push's file to the device.
    void PutFileToDevice();
    static void* PutFileToDevThreadStart(void* engine);

    /// Keeps the record in progress while a transaction is active, at most 180 seconds, then fails it. The engine
    /// does not run it.
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
