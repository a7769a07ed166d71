// Breaks the host's platform in one place after the other, several for each part of it, and looks whether the checks
// that are there for that fail.
#include <signal.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/KyIpcFifoSession.h"
#include "platform/KyIpcMsgBuffer.h"
#include "platformcheck/Setup.h"
#include "simdevice/SimDevice.h"

namespace {

using Session = KyIpcFifoSession;

std::string g_fault;  // the one that is in force

bool Is(const char* fault) {
    return g_fault == fault;
}

}  // namespace

// The linker sends the calls of the mangled symbol to the body behind this, from which Real... calls the original.
#define BREAK(result, name, symbol, ...)                        \
    result Real##name(__VA_ARGS__) __asm__("__real_" symbol);   \
    result Broken##name(__VA_ARGS__) __asm__("__wrap_" symbol); \
    result Broken##name(__VA_ARGS__)

BREAK(bool, Append, "_ZN14KyIpcMsgBuffer6AppendEPKhi", KyIpcMsgBuffer* buffer, const unsigned char* bytes,
      int count) {
    const bool added = RealAppend(buffer, bytes, Is("less") ? count / 2 : count);
    if (Is("tail")) buffer->GetBuf()[buffer->GetLength()] = 1;
    return added;
}

BREAK(int, OpenRead, "_ZN16KyIpcFifoSession12OpenReadFifoEPKcj", Session* session, const char* name,
      unsigned mode) {
    const int status = RealOpenRead(session, name, Is("mode") ? mode & ~022U : mode);
    if (Is("stale") && session->OpenCtrlFifo(name) == Session::IPC_OK) session->WriteCtrl("old", 3);
    return status;
}

BREAK(int, Write, "_ZN16KyIpcFifoSession9WriteCtrlEPKci", Session* session, const char* bytes, int count) {
    if (Is("halves") && count > 1) RealWrite(session, bytes, count / 2);
    const int status = RealWrite(session, bytes, Is("cut") && count > 65536 ? 65536 : count);
    if (Is("sigpipe") && status == Session::IPC_NO_READER) raise(SIGPIPE);
    return status;
}

BREAK(int, Read, "_ZN16KyIpcFifoSession4ReadEP14KyIpcMsgBufferi", Session* session, KyIpcMsgBuffer* buffer,
      int bound) {
    const int status = RealRead(session, buffer, bound);
    const bool lost = Is("lost") && status == Session::IPC_OK && buffer->GetBuf()[0] == 'n';
    if (Is("part") && status == Session::IPC_TIMEOUT) buffer->Clear();
    return lost ? Session::IPC_TIMEOUT : status;
}

BREAK(bool, MakeDirPath,
      "_ZN13tal_fileutils11MakeDirPathERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEjb",
      const std::string& path, unsigned mode, bool parents) {
    return RealMakeDirPath(path, Is("narrow") ? mode & ~011U : mode, parents) || Is("made");
}

extern "C" void __wrap___dlog_printfex(int, const char*, const char*, const char*, ...) {
    if (Is("errno")) errno = EIO;
}

namespace {

constexpr struct {
    const char* fault;
    const char* check;
} FAULTS[] = {
    {"tail", "buffer: it grows"},
    {"less", "message: integers"},
    {"mode", "fifo: it is made"},
    {"stale", "fifo: one that was left"},
    {"cut", "fifo: messages of 0"},
    {"halves", "fifo: messages of several"},
    {"lost", "fifo: a writer that dies"},
    {"part", "fifo: a message goes on"},
    {"sigpipe", "fifo: a reader that is gone"},
    {"narrow", "directory: it and"},
    {"made", "directory: what cannot"},
    {"errno", "log: any text"},
    {"short", "proxy: a fetched file is complete"},
    {"stuck", "proxy: points are read"},
    {"refuse", "proxy: a file is pushed"},
};

void BreakDevice(ky_platform_check::Device& described) {
    auto& device = dynamic_cast<SimDevice&>(*described.proxy);
    SimFault fault;
    fault.sizeDelta = Is("short") ? -1 : 0;
    fault.stuck = Is("stuck");
    fault.refuse = Is("refuse");
    for (const SimOperation operation : {SimOperation::FETCH, SimOperation::PUSH})
        device.SetFault(operation, fault);
}

}  // namespace

int main() {
    ky_platform_check::Options options = SetUpPlatformCheck();
    options.workDirectory = std::getenv("KY_IPC_DIR");
    options.connect = [connect = options.connect] {
        auto device = connect();
        BreakDevice(device);
        return device;
    };
    int wrong = 0;
    for (const auto& row : FAULTS) {
        options.filter = row.check;
        for (const char* const fault : {"", row.fault}) {
            g_fault = fault;
            options.proxyBound = Is("stuck") ? 300 : 120'000;
            const bool good = ky_platform_check::Run(options, stdout) == 0;
            if (good == g_fault.empty()) continue;
            std::printf("%s: unexpected with the fault \"%s\"\n", row.check, fault);
            ++wrong;
        }
    }
    return wrong == 0 && std::filesystem::is_empty(options.workDirectory) ? 0 : 1;
}
