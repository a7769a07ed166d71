#include "platform/KyIpcFifoSession.h"

#include <cstdio>
#include <exception>

#include "host/KyFifoDirectory.h"
#include "host/KyIpcReadFifo.h"
#include "host/KyIpcWriteFifo.h"
#include "platform/KyIpcMsgBuffer.h"

namespace {

constexpr int kDefaultWriteBoundMs = 10000;

/// The result of `operation`, or IPC_NO_MEMORY if it throws: it throws std::bad_alloc only.
template <typename Operation>
int Guarded(Operation operation) {
    try {
        return operation();
    } catch (const std::exception&) {
        return KyIpcFifoSession::IPC_NO_MEMORY;
    }
}

}  // namespace

KyIpcFifoSession::KyIpcFifoSession(const char* name, IpcCloseConfirmBehavior /*behavior*/)
    : m_writeBound(kDefaultWriteBoundMs) {
    std::snprintf(m_name, sizeof m_name, "%s", name == nullptr ? "" : name);
}

KyIpcFifoSession::~KyIpcFifoSession() {
    KyIpcFifoSession::Close();
}

int KyIpcFifoSession::Close() {
    const int status = m_reader ? m_reader->Remove(*m_directory) : IPC_OK;
    m_reader.reset();
    m_writer.reset();
    m_directory.reset();
    return status == IPC_OK ? IPC_OK : IPC_FAILED;
}

int KyIpcFifoSession::OpenReadFifo(const char* name, unsigned int mode) {
    if (!KyFifoDirectory::FitName(name)) return IPC_BAD_ARGUMENT;
    if (m_reader) m_reader->Remove(*m_directory);
    m_reader.reset();
    return Guarded([&] {
        auto reader = std::make_unique<KyIpcReadFifo>();
        int status = OpenDirectory();
        if (status == IPC_OK) status = reader->Open(*m_directory, name, mode);
        if (status == IPC_OK) m_reader = std::move(reader);
        return status;
    });
}

int KyIpcFifoSession::OpenCtrlFifo(const char* name) {
    if (!KyFifoDirectory::FitName(name)) return IPC_BAD_ARGUMENT;
    m_writer.reset();
    return Guarded([&] {
        auto writer = std::make_unique<KyIpcWriteFifo>();
        int status = OpenDirectory();
        if (status == IPC_OK) status = writer->Open(*m_directory, name);
        if (status == IPC_OK) m_writer = std::move(writer);
        return status;
    });
}

/// Opens the directory unless the other FIFO has opened it.
int KyIpcFifoSession::OpenDirectory() {
    if (m_directory) return IPC_OK;
    auto directory = std::make_unique<KyFifoDirectory>();
    const int status = directory->Open();
    if (status == IPC_OK) m_directory = std::move(directory);
    return status;
}

int KyIpcFifoSession::WriteCtrl(const char* bytes, int count) {
    if (bytes == nullptr || count < 0) return IPC_BAD_ARGUMENT;
    return m_writer ? m_writer->Write(bytes, count, m_writeBound) : IPC_NOT_OPEN;
}

void KyIpcFifoSession::SetWriteBound(int milliseconds) {
    m_writeBound = milliseconds;
}

int KyIpcFifoSession::Read(KyIpcMsgBuffer* buffer, int milliseconds) {
    if (buffer == nullptr) return IPC_BAD_ARGUMENT;
    const int peer = m_writer ? m_writer->Descriptor() : -1;
    if (m_reader) return m_reader->Read(*buffer, milliseconds, peer, m_name);
    buffer->Clear();
    return IPC_NOT_OPEN;
}

int KyIpcFifoSession::ReadDescriptor() const {
    return m_reader ? m_reader->Descriptor() : -1;
}
