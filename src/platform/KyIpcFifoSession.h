#ifndef PLATFORM_KYIPCFIFOSESSION_H
#define PLATFORM_KYIPCFIFOSESSION_H

#include <memory>

class KyFifoDirectory;
class KyIpcMsgBuffer;
class KyIpcReadFifo;
class KyIpcWriteFifo;

/// Sends and receives whole messages over named FIFOs: at most one FIFO that this session reads, and one that
/// it writes.
///
/// The FIFOs are known by their names alone; where they lie is the platform's own. The reader makes a FIFO
/// and takes it away again, the writer finds it. Any number of processes may write to one FIFO: their
/// messages come out whole, one after the other. Of a writer that dies within a message only that message is
/// lost.
///
/// Who asks: OpenReadFifo() for the answer, OpenCtrlFifo(), WriteCtrl(), Read(), Close(). Who serves:
/// OpenReadFifo() once, Read() for each message, and for each answer a session of its own with OpenCtrlFifo()
/// and WriteCtrl().
///
/// A session has no lock; one thread uses it at a time. Only Read() and WriteCtrl() wait, each within its
/// bound; a signal does not cut a wait short. No operation raises SIGPIPE or changes what the process does
/// with it, none throws, and every descriptor closes on exec.
class KyIpcFifoSession {
public:
    /// What Close() does about messages that the peer has not taken yet.
    enum IpcCloseConfirmBehavior : int {
        IPC_CLOSE_NO_CONFIRM = 0,  ///< it does not wait for the peer
    };

    /// What the operations return.
    enum IpcStatus : int {
        IPC_OK = 0,            ///< done
        IPC_FAILED = 1,        ///< a system call failed for another reason than those below
        IPC_BAD_ARGUMENT = 2,  ///< an argument was null or negative, or the name of a FIFO unfit
        IPC_NOT_OPEN = 3,      ///< the session has no such FIFO open
        IPC_TIMEOUT = 4,       ///< the bound passed
        IPC_NO_FIFO = 5,       ///< there is no FIFO of that name, or nowhere to look for it
        IPC_NO_READER = 6,     ///< nobody reads the FIFO, or nobody does any more
        IPC_REFUSED = 7,       ///< what has the name is no FIFO, or not to be trusted; it is left as it was
        IPC_TOO_LARGE = 8,     ///< the message passes what one may have, about 1 MiB
        IPC_NO_MEMORY = 9,     ///< memory has run out
    };

    /// A session without open FIFOs.
    ///
    /// @param name      names the session in log lines; null is fine, and only the first characters are kept
    /// @param behavior  what Close() does about messages that have not been taken
    KyIpcFifoSession(const char* name, IpcCloseConfirmBehavior behavior);
    KyIpcFifoSession(const KyIpcFifoSession&) = delete;
    KyIpcFifoSession& operator=(const KyIpcFifoSession&) = delete;

    /// Closes the session if that has not been done.
    virtual ~KyIpcFifoSession();

    /// Closes both FIFOs and removes the one that the session reads, if that is still the one it has made. A
    /// session without open FIFOs is left as it is. The session can be used anew.
    ///
    /// @return IPC_OK; IPC_FAILED if the FIFO could not be removed, but closed it is
    virtual int Close();

    /// Makes a FIFO and opens it for reading. One that is there already, left by a process that has died, is
    /// replaced, along with what stands in it; anything else that has the name is refused. Whoever wants only
    /// one reader of a name sees to that himself. A FIFO that this session has been reading is closed first.
    ///
    /// @param name  not empty, without "/" and ".."
    /// @param mode  the FIFO's permission bits, which it gets whatever the umask
    int OpenReadFifo(const char* name, unsigned int mode);

    /// Opens a FIFO that somebody reads, for writing. A FIFO that this session has been writing is closed
    /// first. It does not wait: without a reader it fails.
    ///
    /// @param name  not empty, without "/" and ".."
    int OpenCtrlFifo(const char* name);

    /// Writes one message. It waits while the FIFO is full and while other writers are at it, for as long as
    /// the write bound says.
    ///
    /// @param bytes  the message; not null
    /// @param count  its length in bytes, from 0 on
    /// @return IPC_OK once the FIFO has taken the whole message; with any other value it has not, and
    ///         its reader drops what has come of it
    int WriteCtrl(const char* bytes, int count);

    /// Sets how long WriteCtrl() may take altogether, in milliseconds; at first 10000. With 0 or less it
    /// fails where it would have to wait. A process that must not be held up by a peer who does not read sets
    /// a short one.
    void SetWriteBound(int milliseconds);

    /// Takes the next message from the FIFO, and waits for it as long as the bound says, over all the pieces
    /// in which it may come. Bytes that belong to no whole message are skipped, with a log line. While the
    /// session also has a FIFO open that it writes, it waits no longer than somebody reads that one: who
    /// would answer has gone.
    ///
    /// @param buffer        gets the message in the place of what it holds; not null. It grows as needed
    /// @param milliseconds  longest wait; 0 or less takes what is there without waiting
    /// @return IPC_OK with one message in the buffer. IPC_TIMEOUT with that part of the next message in it
    ///         which has come so far; the next call goes on with that message. IPC_NO_READER if there is none
    ///         and nobody reads the FIFO that the session writes any more. That or another value, and an
    ///         empty buffer, otherwise
    int Read(KyIpcMsgBuffer* buffer, int milliseconds);

    /// The descriptor of the FIFO that is read, for poll(); -1 if none is open. It stays the session's. It
    /// tells of new bytes only: messages may have been taken out of the FIFO already, so whoever polls has
    /// first called Read() without waiting until there was none left.
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
