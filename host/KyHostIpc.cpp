#include "host/KyHostIpc.h"

#include <exception>

#include "host/KyFifoDirectory.h"
#include "platform/KyIpcFifoSession.h"

int ky_host::CreateIpcDirectory() {
    try {
        return KyFifoDirectory::Create();
    } catch (const std::exception&) {
        return KyIpcFifoSession::IPC_NO_MEMORY;
    }
}

std::string ky_host::IpcDirectory() {
    return KyFifoDirectory::Path();
}
