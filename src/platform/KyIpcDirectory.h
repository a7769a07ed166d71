#ifndef PLATFORM_KYIPCDIRECTORY_H
#define PLATFORM_KYIPCDIRECTORY_H

#include <string>

/// The directory that holds the FIFOs of KyIpcFifoSession. The service and tferctl use it; the library does
/// not.
///
/// Any thread may call both operations, and several processes may call them at once.
namespace ky_ipc {

/// Creates the directory unless it exists. The service calls it before it opens the control FIFO.
///
/// The owner and the owner's group can write to the directory, other users cannot: callers that run as other
/// users belong to the group. The parent directory must exist.
///
/// @return a KyIpcFifoSession::IpcStatus: IPC_OK if the directory exists and is safe to use; IPC_REFUSED if
///         the path is not a directory, or if other users can write to it; another value otherwise
int CreateIpcDirectory();

/// The path of the directory. On the host: the value of KY_IPC_DIR if it is set, otherwise /run/ky-ipc. An
/// ordinary user on a machine without /run/ky-ipc gets "/tmp/ky-ipc-" and the user number. Throws
/// std::bad_alloc if memory has run out.
std::string IpcDirectory();

}  // namespace ky_ipc

#endif
