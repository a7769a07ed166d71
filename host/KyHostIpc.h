#ifndef HOST_KYHOSTIPC_H
#define HOST_KYHOSTIPC_H

#include <string>

namespace ky_host {

/// Makes the directory in which this process's FIFOs and those of its peers lie, unless it is there. The
/// process that serves calls it before it opens its FIFO; those who ask only find it.
///
/// It is writable by its owner and the owner's group, and by nobody else: processes of other users take part
/// if they belong to the group. Its parent must exist.
///
/// @return a KyIpcFifoSession::IpcStatus: IPC_OK if the directory is there and fit; IPC_REFUSED if something
///         else is there or strangers can write to it; another value otherwise
///
/// May be called from any thread, also by several processes at once.
int CreateIpcDirectory();

/// The path of that directory: the value of KY_IPC_DIR; without that /run/ky-ipc; and for an ordinary user
/// where that does not exist, /tmp/ky-ipc- with his user number. Throws std::bad_alloc when memory has run
/// out.
std::string IpcDirectory();

}  // namespace ky_host

#endif
