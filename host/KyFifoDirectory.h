#ifndef HOST_KYFIFODIRECTORY_H
#define HOST_KYFIFODIRECTORY_H

#include <sys/types.h>

#include <string>

#include "platform/KyFd.h"

/// A FIFO that this process has made and opened, and by which it knows the one that has its name later.
struct KyMadeFifo {
    KyFd fd;
    dev_t device = 0;
    ino_t inode = 0;
};

/// The directory in which the FIFOs of all processes lie.
///
/// It is the one that KY_IPC_DIR names in the environment; without that /run/ky-ipc; and for an ordinary user
/// where that does not exist, /tmp/ky-ipc-<user number>. All that is done in it goes through the opened
/// directory and never follows a symbolic link.
///
/// The operations return a KyIpcFifoSession::IpcStatus, and may throw std::bad_alloc where they say so.
class KyFifoDirectory {
public:
    /// Whether `name` can be a FIFO's: not null, not empty, not too long, without "/" and "..".
    static bool FitName(const char* name);

    /// Opens the directory and checks that strangers cannot write to it, and that in /tmp it is this user's
    /// or root's. May throw std::bad_alloc.
    int Open();

    /// Makes the FIFO and opens it, in the place of a FIFO that has the name already.
    ///
    /// @param fifo  gets the FIFO, open for reading and for writing: while the reader itself could write to
    ///              it, it does not come to an end when the last other writer closes it
    int MakeFifo(const char* name, mode_t mode, KyMadeFifo& fifo) const;

    /// Opens a FIFO that has a reader, for writing. Writing to it does not wait, and reading from the one
    /// above does not either.
    int OpenForWriting(const char* name, KyFd& fifo) const;

    /// Removes the name, if it is still that of the open FIFO.
    int RemoveFifo(const char* name, const KyMadeFifo& fifo) const;

private:
    int CreateFifo(const char* name) const;
    int RemoveOld(const char* name) const;
    KyFd OpenMade(const char* name) const;

    KyFd m_directory;
};

#endif
