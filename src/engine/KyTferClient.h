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

/// The transfer engine: moves files between the card and one managed device, and keeps the state of the
/// transaction as a status record.
///
/// States. A new engine does nothing. Init binds it to a device. From then on it takes requests and point
/// changes; a request before Init has ended is refused. Stop ends its threads for good: after it requests are
/// refused, and only destruction is left. The destructor stops an engine that was not stopped.
///
/// A fetch. GetFileFromDevRequest records the transaction, starts a monitor and writes the file's name to the
/// device's request point. When the device answers "READY", which reaches the engine through DataChange, a
/// worker fetches the file into the landing directory, checks its size, moves it into the download directory
/// and answers the device. The monitor meanwhile reports the size of the arriving file in the record, and
/// ends the transaction when 180 seconds have passed. A fetch that its worker has completed stays complete.
///
/// Threads. All operations may be called from any thread, with these exceptions: Init is called once, before
/// all others but Stop; DataChange is called for one change after the other; CreateDirectoryFromFile is called
/// from one thread at a time. Requests that come at the same time take turns. From within a call of the proxy only
/// DataChange and GetStatus may be called.
///
/// Blocking. Init takes eight seconds at least. Requests block for their point writes, as long as the proxy
/// takes for them. GetStatus blocks for some microseconds. Stop blocks until the engine's threads have ended:
/// a second after a fetch in progress, and as long as a proxy call that is under way.
///
/// Locks. The status record has a lock of its own, which is held for a few assignments, one look at a file
/// or its removal, and never around a call of the proxy, a log line or the start of a thread. Requests of fetches and listings,
/// and abandoning, take turns with a second lock, which is held for their point writes.
///
/// Memory. No operation throws; a transaction that cannot go on because memory runs out ends as failed. Only
/// the constructor may throw std::bad_alloc. A proxy that throws is taken for one that failed.
class KYTFER_EXPORT KyTferClient {
public:
    /// An engine without a device. Touches neither device nor file system. Throws std::bad_alloc if memory runs
    /// out.
    KyTferClient();

    /// Stops the engine if Stop was not called. Neither the device nor the flag files are touched.
    virtual ~KyTferClient();

    KyTferClient(const KyTferClient&) = delete;
    KyTferClient& operator=(const KyTferClient&) = delete;

    /// @{ @name Life of the engine

    /// Binds the engine to a device: finds the card's module index there, creates the card's directories and
    /// agrees with the device on a transport.
    ///
    /// Blocks until the module index has been found, which takes about eight seconds, or for ever if the
    /// device does not know the card; Stop ends the search, and the rest is then done without an index.
    ///
    /// @param deviceId  identifier of the managed device
    /// @param proxy     the device's proxy; not owned; must outlive the engine. With null, Init fails and every
    ///                  request is refused.
    /// @return 0 for success. Over the Sorrel 485 transport it is the status of setting the device's file
    ///         size point, over USB that of the read that failed or 0. IsTferProtocolSupported tells which it
    ///         is.
    int Init(unsigned short deviceId, KyPldProxy* proxy);

    /// Ends the engine. When it returns, the engine's threads have ended, and no other thread's call that may reach
    /// the proxy is inside the engine. The engine makes no further call to the proxy, unless Init is called after it.
    /// Calling it again, or before Init, does no harm. A wait of more than a second is logged: usually
    /// a call of the proxy does not return.
    ///
    /// Must not be called from within a call of the proxy: it would wait for that call for ever.
    void Stop();

    /// Sets the pause between two polls of a monitor. Without a pause a monitor polls back to back, and keeps a
    /// processor busy as long as its transaction takes. The pause ends at once when the worker has ended, the
    /// transaction is abandoned or the engine stops, so it delays only what the monitor sees by itself: the
    /// growth of the file, and the time limit.
    ///
    /// @param milliseconds  0, the default, for none
    void SetPollPause(unsigned int milliseconds);

    /// @}
    /// @{ @name Requests and status

    /// Asks the device for one of its files.
    ///
    /// @param fileName  the file's name on the device
    /// @param fileSize  its size in bytes, taken as an unsigned number; a file that arrives with another size
    ///                  has failed
    /// @return a copy of the record, in progress, when the request is accepted; otherwise a separate record
    ///         with TFER_STATUS_FAIL and the reason: a transaction is in progress, or there is no device
    KyTferStatusMsg GetFileFromDevRequest(const std::string& fileName, int fileSize);

    /// Hands a file of the card to the device. The file is consumed, whatever comes of it: it is moved into
    /// the staging directory "/var/local/tal/pldserver", where it stays after the transfer, or removed if the
    /// request fails. It must lie on that directory's file system.
    ///
    /// Blocks for at least a second, which the device needs between the file's size and its name. A push does
    /// not ask whether another transaction is in progress, and no monitor watches it. Beside a fetch or a listing
    /// each runs to its end, and the record shows the row that was written last.
    ///
    /// @param directory  directory of the file, without a "/" at its end
    /// @param fileName   the file's name in it
    /// @return a copy of the record: in progress, or failed with the reason. Without a device it is a
    ///         separate record with TFER_STATUS_FAIL, and the file is left alone.
    KyTferStatusMsg PutFileToDevRequest(const std::string& directory, const std::string& fileName);

    /// Asks the device for a listing of its files. The file that it names in answer is fetched like any
    /// other, within 60 seconds; when the record is complete, CreateDirectoryFromFile can read it.
    ///
    /// @return a copy of the record, in progress, when the request is accepted; otherwise a separate record
    ///         with TFER_STATUS_FAIL and the reason: a transaction is in progress, the device did not take
    ///         the request, or there is no device
    KyTferStatusMsg GetDirectoryFromDevRequest();

    /// A copy of the status record, all of it taken at one instant. There is one record, whatever the identifier.
    /// If memory runs out, the record is a failed one with that text.
    KyTferStatusMsg GetStatus(const std::string& transactionId);

    /// Notes a wish to cancel in the log. The transaction goes on: see AbandonTransaction.
    void CancelTransaction(const std::string& transactionId);

    /// Ends the transfer in progress as failed, with the text "File transfer cancelled". Fetches and listings that
    /// the record shows behind the row of a push are ended too; a push whose row another one covers goes on. With
    /// nothing in progress nothing changes. A file that has arrived and is being moved is complete, not cancelled.
    ///
    /// The next request is accepted at once. If the device has not answered yet, it is told "NONE", except for a
    /// push; a "READY" that still comes starts nothing, unless the next fetch has been accepted before. A monitor
    /// ends within a second. KyPldProxy::AbortTransfer is called. If the proxy does not implement it, the worker runs
    /// to the end of its call, removes its file, and changes nothing else. The file of a push stays staged.
    ///
    /// Blocks for its point write, and until a fetch or listing request under way has written its own.
    ///
    /// @param reason  added to the text, after ": "; may be empty
    /// @return a copy of the record
    KyTferStatusMsg AbandonTransaction(const std::string& reason);

    /// Reads a fetched listing file into a listing that the engine keeps under `path`, until it is destroyed. A
    /// listing that is kept under `path` already stays. At most 16 are kept; the one requested least recently is
    /// dropped. A file that cannot be read gives an empty listing; a damaged one gives the entries before the damage.
    ///
    /// Blocks for the reading of the file.
    void CreateDirectoryFromFile(const std::string& path);

    /// True while a worker has been started and has not returned. A service should wait for false before the next
    /// request, and deliver the point changes until then: the last worker's point writes do not reach the next
    /// transaction then.
    bool WorkerRunning() const;

    /// @}
    /// @{ @name The device

    /// Takes a change of one of the device's points. Called for every change, in their order and one at a
    /// time; points that do not matter are ignored. May start a thread; does not wait for it. Blocks while a
    /// file is moved that the listing before has brought.
    ///
    /// Devices report the card's own writes too. A reported value equal to one that was written in the last two or
    /// three seconds is treated as an echo, on the request point only if the empty text came before it.
    void DataChange(const KyValChgInfo& info);

    /// Tells the rest of the card whether the device supports the USB transport: creates or removes the flag
    /// file "/var/tmp/dmp/dmp_supported". A failure is logged. The directory is not created.
    void SetDmpSupported(bool supported);

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

    /// @}
    /// @{ @name What Init has found

    /// True if Init has agreed on the Sorrel 485 transport with the device.
    bool IsTferProtocolSupported() const;

    /// The card's directory for files fetched from the device, with a "/" at its end; empty before the first
    /// Init. The last Init of the process decides.
    static std::string GetHmiDownloadDirectory();

    /// The directory into which the proxy delivers files of the device, with a "/" at its end; empty before
    /// the first Init. The last Init of the process decides.
    static std::string GetCardReceiveFileDirectory();

    /// @}
    /// @{ @name Bodies and entries of the engine's threads
    ///
    /// The engine runs the bodies itself, on threads of its own. Called by a user, a body works on the calling
    /// thread for the transaction that is current. An entry names the calling thread and runs the body; its
    /// argument is the KyTferClient, and it returns null.

    /// Fetches the file of the current transaction.
    void GetFileFromDevice();
    static void* GetFileFromDevThreadStart(void* engine);

    /// Watches the current fetch.
    void MonitorGetFileRequest();
    static void* MonitorGetFileThreadStart(void* engine);

    /// Hands the last push's file to the device.
    void PutFileToDevice();
    static void* PutFileToDevThreadStart(void* engine);

    /// Holds the record in progress while a transaction is active, up to 180 seconds, and fails it. The engine
    /// never runs it: nobody watches a push.
    void MonitorPutFileRequest();
    static void* MonitorPutFileThreadStart(void* engine);

    /// Watches the current listing.
    void MonitorGetDirRequest();
    static void* MonitorGetDirThreadStart(void* engine);

    /// @}

private:
    const std::unique_ptr<ky_engine::Engine> m_engine;
};

#endif
