#ifndef PLATFORM_KYIPCFIFOSESSION_H
#define PLATFORM_KYIPCFIFOSESSION_H

#include <memory>

class KyFifoDirectory;
class KyIpcMsgBuffer;
class KyIpcReadFifo;
class KyIpcWriteFifo;

/// Sends and receives complete messages over named FIFOs. A session reads at most one FIFO, and writes at
/// most one.
///
/// FIFOs are identified by names; the platform chooses their directory. The reader creates and removes a
/// FIFO; the writer opens it. Several processes may write to one FIFO: their messages are not mixed. If a
/// writer dies within a message, only that message is lost.
///
/// A caller uses OpenReadFifo() for the reply, OpenCtrlFifo(), WriteCtrl(), Read() and Close(). A service
/// uses OpenReadFifo() once and Read() for each message; for each reply it uses another session with
/// OpenCtrlFifo() and WriteCtrl().
///
/// A session has no lock; one thread uses it at a time. Only Read() and WriteCtrl() block, each within its
/// bound; signals do not shorten a wait. No operation raises SIGPIPE, changes its action, or throws. All
/// descriptors close on exec.
class KyIpcFifoSession {
public:
    /// What Close() does about messages that the peer has not read.
    enum IpcCloseConfirmBehavior : int {
        IPC_CLOSE_NO_CONFIRM = 0,  ///< Close() does not wait
    };

    /// Result of an operation.
    enum IpcStatus : int {
        IPC_OK = 0,            ///< done
        IPC_FAILED = 1,        ///< a system call failed, for none of the reasons below
        IPC_BAD_ARGUMENT = 2,  ///< an argument is null or negative, or a FIFO name is not allowed
        IPC_NOT_OPEN = 3,      ///< the session has not opened this FIFO
        IPC_TIMEOUT = 4,       ///< the bound passed
        IPC_NO_FIFO = 5,       ///< the FIFO, or the directory of the FIFOs, does not exist
        IPC_NO_READER = 6,     ///< the FIFO has no reader, or has lost it
        IPC_REFUSED = 7,       ///< the name is not that of a FIFO, or other users can write to the directory
        IPC_TOO_LARGE = 8,     ///< the message is larger than about 1 MiB
        IPC_NO_MEMORY = 9,     ///< memory has run out
    };

    /// A session without open FIFOs.
    ///
    /// @param name      for log lines, where it may be cut; may be null
    /// @param behavior  what Close() does about messages that the peer has not read
    KyIpcFifoSession(const char* name, IpcCloseConfirmBehavior behavior);
    KyIpcFifoSession(const KyIpcFifoSession&) = delete;
    KyIpcFifoSession& operator=(const KyIpcFifoSession&) = delete;

    /// Closes the session if it is open.
    virtual ~KyIpcFifoSession();

    /// Closes both FIFOs, and removes the FIFO that the session reads unless another one has replaced it.
    /// Does nothing without open FIFOs. The session can be used again.
    ///
    /// @return IPC_OK; IPC_FAILED if the FIFO was closed but could not be removed
    virtual int Close();

    /// Creates a FIFO and opens it for reading. Replaces an existing FIFO of that name and discards its bytes:
    /// a process that died may have left it. Does not check whether another process reads the existing FIFO.
    /// Closes the FIFO that this session read before.
    ///
    /// @param name  not empty, without "/" and ".."
    /// @param mode  permission bits of the FIFO; the umask does not apply
    /// @return an IpcStatus; IPC_REFUSED if a file of that name is not a FIFO
    int OpenReadFifo(const char* name, unsigned int mode);

    /// Opens a FIFO for writing. Does not wait for a reader. Closes the FIFO that this session wrote before.
    ///
    /// @param name  not empty, without "/" and ".."
    /// @return an IpcStatus; IPC_NO_FIFO if there is none, IPC_NO_READER if no process has it open for reading
    int OpenCtrlFifo(const char* name);

    /// Writes one message. Waits for other writers and for room in the FIFO, at most for the write bound.
    ///
    /// @param bytes  the message; not null
    /// @param count  its length in bytes, 0 or more
    /// @return IPC_OK if the FIFO holds the complete message. After another value, the reader drops a partial
    ///         message
    int WriteCtrl(const char* bytes, int count);

    /// Sets the longest duration of WriteCtrl(), in milliseconds; 10000 in a new session. With 0 or less,
    /// WriteCtrl() fails instead of waiting. A short bound keeps a peer that does not read from blocking this
    /// process.
    void SetWriteBound(int milliseconds);

    /// Reads the next message, and waits until it is complete. Skips bytes that belong to no complete
    /// message, with a log line. If the session also writes a FIFO and that FIFO has lost its reader, no reply
    /// can come: returns IPC_NO_READER once no message is left.
    ///
    /// @param buffer        not null; its content is replaced
    /// @param milliseconds  longest wait; 0 or less does not wait
    /// @return IPC_OK: the buffer has one message. IPC_TIMEOUT: the buffer has the part of the next message
    ///         that has arrived, and the next call continues that message. With any other value, the buffer is
    ///         empty
    int Read(KyIpcMsgBuffer* buffer, int milliseconds);

    /// The descriptor of the FIFO that the session reads, for poll(); -1 for none. The session owns the
    /// descriptor, which is valid until the FIFO is closed. poll() reports new bytes only, not messages that the
    /// session has buffered: before polling, call Read() without waiting until it returns no message.
    int ReadDescriptor() const;

private:
    int OpenDirectory();

    char m_name[48];
    int m_writeBound;
    std::unique_ptr<KyFifoDirectory> m_directory;  // null until a FIFO is opened
    std::unique_ptr<KyIpcReadFifo> m_reader;       // null unless that FIFO is open
    std::unique_ptr<KyIpcWriteFifo> m_writer;      // null unless that FIFO is open
};

#endif
