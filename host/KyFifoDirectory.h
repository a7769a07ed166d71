#ifndef HOST_KYFIFODIRECTORY_H
#define HOST_KYFIFODIRECTORY_H

#include <sys/types.h>

#include <string>

#include "platform/KyFd.h"

/// A FIFO that this process has created and opened. Device and inode tell whether a name still belongs to it.
struct KyMadeFifo {
    KyFd fd;
    dev_t device = 0;
    ino_t inode = 0;
};

/// The directory of the FIFOs of all processes, see platform/KyIpcDirectory.h. All operations use the opened
/// directory and follow no symbolic link.
///
/// The operations return a KyIpcFifoSession::IpcStatus. Only Open() may throw std::bad_alloc.
class KyFifoDirectory {
public:
    /// Whether `name` is allowed as the name of a FIFO: not null, not empty, not ".", without "/" and "..", and at most
    /// NAME_MAX bytes long.
    static bool FitName(const char* name);

    /// Opens the directory. Refuses a directory to which other users can write, and a directory in /tmp of
    /// which neither this user nor root is the owner.
    int Open();

    /// Creates the FIFO and opens it. Replaces an older FIFO of that name.
    ///
    /// @param fifo  set to the FIFO, open for reading and writing: without a writer of its own, the reader
    ///              would get end-of-file when the last writer closes the FIFO
    int MakeFifo(const char* name, mode_t mode, KyMadeFifo& fifo) const;

    /// Opens a FIFO that has a reader, for writing without blocking.
    int OpenForWriting(const char* name, KyFd& fifo) const;

    /// Removes the name if it still belongs to the open FIFO.
    int RemoveFifo(const char* name, const KyMadeFifo& fifo) const;

private:
    int CreateFifo(const char* name) const;
    int RemoveOld(const char* name) const;
    KyFd OpenMade(const char* name) const;

    KyFd m_directory;
};

#endif
