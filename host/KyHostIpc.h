#ifndef HOST_KYHOSTIPC_H
#define HOST_KYHOSTIPC_H

#include "platform/KyIpcDirectory.h"

/// Earlier names of the operations in platform/KyIpcDirectory.h.
namespace ky_host {
using ky_ipc::CreateIpcDirectory;
using ky_ipc::IpcDirectory;
}  // namespace ky_host

#endif
