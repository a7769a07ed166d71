// Breaks the host's platform in one place after the other, and looks whether the check that is there for it fails.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "platform/KyIpcFifoSession.h"
#include "platform/KyIpcMsgBuffer.h"
#include "platformcheck/Setup.h"
#include "simdevice/SimDevice.h"

namespace {

using Session = KyIpcFifoSession;

constexpr int OK = Session::IPC_OK;
constexpr int FAILED = Session::IPC_FAILED;
constexpr int TIMEOUT = Session::IPC_TIMEOUT;

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
#define STRING "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"

BREAK(bool, Append, "_ZN14KyIpcMsgBuffer6AppendEPKhi", KyIpcMsgBuffer* buffer, const unsigned char* bytes,
      int count) {
    if (Is("negative") && count < 0) return true;
    const bool added = RealAppend(buffer, bytes, count);
    if (Is("tail")) buffer->GetBuf()[buffer->GetLength()] = 1;
    return added;
}

BREAK(void, Clear, "_ZN14KyIpcMsgBuffer5ClearEv", KyIpcMsgBuffer* buffer) {
    if (!Is("clear")) RealClear(buffer);
}

BREAK(int, Put, "_ZN12KyIpcMsgUtil10PutIntegerEP14KyIpcMsgBufferi", KyIpcMsgBuffer* buffer, int value) {
    return RealPut(buffer,
                   Is("endian") ? static_cast<int>(__builtin_bswap32(static_cast<unsigned>(value))) : value);
}

BREAK(int, Extract, "_ZN12KyIpcMsgUtil18ExtractStringParamEP14KyIpcMsgBufferR" STRING, KyIpcMsgBuffer* buffer,
      std::string& value) {
    const int status = RealExtract(buffer, value);
    return Is("extract") ? 0 : status;
}

BREAK(int, OpenRead, "_ZN16KyIpcFifoSession12OpenReadFifoEPKcj", Session* session, const char* name,
      unsigned mode) {
    if (Is("names") && name != nullptr && std::strchr(name, '/') != nullptr) return OK;
    const int status = RealOpenRead(session, name, Is("mode") ? mode & ~022U : mode);
    if (Is("exec")) fcntl(session->ReadDescriptor(), F_SETFD, 0);
    if (Is("stale") && session->OpenCtrlFifo(name) == OK) session->WriteCtrl("old", 3);
    return status;
}

BREAK(int, OpenCtrl, "_ZN16KyIpcFifoSession12OpenCtrlFifoEPKc", Session* session, const char* name) {
    const int status = RealOpenCtrl(session, name);
    if (Is("waits") && status == Session::IPC_NO_READER) pause();
    return Is("refused") && status == Session::IPC_REFUSED ? FAILED : status;
}

BREAK(int, Write, "_ZN16KyIpcFifoSession9WriteCtrlEPKci", Session* session, const char* bytes, int count) {
    if (Is("argument") && count < 0) return OK;
    if (Is("halves") && count > 1) RealWrite(session, bytes, count / 2);
    const int status = RealWrite(session, bytes, Is("cut") && count > 65536 ? 65536 : count);
    if (Is("sigpipe") && status == Session::IPC_NO_READER) raise(SIGPIPE);
    return Is("large") && status == Session::IPC_TOO_LARGE ? OK : status;
}

BREAK(int, Read, "_ZN16KyIpcFifoSession4ReadEP14KyIpcMsgBufferi", Session* session, KyIpcMsgBuffer* buffer,
      int bound) {
    if (Is("impatient") && bound > 0) return TIMEOUT;
    const int status = RealRead(session, buffer, bound);
    const bool lost = Is("next lost") && status == OK && buffer->GetBuf()[0] == 'n';
    if (Is("frames") && status == OK && buffer->GetLength() > 16) buffer->Clear();
    if (Is("part") && status == TIMEOUT) buffer->Clear();
    return lost ? TIMEOUT : status;
}

BREAK(int, Close, "_ZN16KyIpcFifoSession5CloseEv", Session* session) {
    return Is("close") ? OK : RealClose(session);
}

BREAK(int, Descriptor, "_ZNK16KyIpcFifoSession14ReadDescriptorEv", const Session* session) {
    const int descriptor = RealDescriptor(session);
    return Is("descriptor") && descriptor >= 0 ? open("/dev/null", O_RDWR | O_CLOEXEC) : descriptor;
}

BREAK(void, Trim, "_ZN13KyStringUtils4TrimER" STRING, std::string& text) {
    if (!Is("trim")) RealTrim(text);
}

BREAK(bool, MakeDirPath, "_ZN13tal_fileutils11MakeDirPathERK" STRING "jb", const std::string& path,
      unsigned mode, bool parents) {
    if (Is("exclusive") && std::filesystem::exists(path)) return false;
    const bool made = RealMakeDirPath(path, Is("narrow") ? mode & ~011U : mode, parents);
    return Is("made") || made;
}

BREAK(std::string, GetMAC, "_ZN12tal_netutils10KyNetUtils6GetMACB5cxx11Ev", void) {
    static int s_calls = 0;
    return Is("mac") ? std::to_string(++s_calls) : RealGetMAC();
}

BREAK(bool, Copy, "_ZN7SimLine4CopyERK9SimSourceiRK8SimFault", SimLine* line, const SimSource& source,
      int target, const SimFault& fault) {
    if (Is("jump")) line->SetRate(0);
    if (Is("jump")) usleep(150000);
    return RealCopy(line, source, target, fault);
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
    {"negative", "buffer: negative counts"},
    {"clear", "buffer: Clear()"},
    {"endian", "message: integers"},
    {"extract", "message: what is cut"},
    {"extract", "message: a string"},
    {"names", "fifo: unfit names"},
    {"argument", "fifo: bad arguments"},
    {"mode", "fifo: it is made"},
    {"exec", "fifo: every descriptor"},
    {"waits", "fifo: without a reader"},
    {"refused", "fifo: what is no FIFO"},
    {"stale", "fifo: one that was left"},
    {"cut", "fifo: messages of 0"},
    {"large", "fifo: a message of 2 MiB"},
    {"close", "fifo: Close()"},
    {"descriptor", "fifo: the descriptor"},
    {"impatient", "fifo: Read()"},
    {"halves", "fifo: messages of several"},
    {"next lost", "fifo: a writer that dies"},
    {"frames", "fifo: a message may look"},
    {"next lost", "fifo: bytes of no whole"},
    {"part", "fifo: a message goes on"},
    {"sigpipe", "fifo: a reader that is gone"},
    {"trim", "string: Trim()"},
    {"narrow", "directory: it and"},
    {"made", "directory: what cannot"},
    {"exclusive", "directory: several"},
    {"mac", "network: the MAC"},
    {"errno", "log: any text"},
    {"errno", "log: several threads"},
    {"number", "proxy: a number"},
    {"text", "proxy: a string"},
    {"absent", "proxy: a point that is not"},
    {"place", "proxy: the card's MAC"},
    {"threads", "proxy: several threads"},
    {"short", "proxy: a fetched file is complete"},
    {"jump", "proxy: a fetched file grows"},
    {"stuck", "proxy: points are read"},
    {"refuse", "proxy: a file is pushed"},
};

void BreakDevice(ky_platform_check::Device& described) {
    auto& device = dynamic_cast<SimDevice&>(*described.proxy);
    if (Is("number")) device.FailPoint(SimAccess::READ, sim_point::SERVER_MAX_FILE_SIZE, 5, 1);
    if (Is("text")) device.FailPoint(SimAccess::WRITE, sim_point::XFER_FILE_NAME, 5, 1);
    if (Is("absent")) described.absent = described.number;
    if (Is("place")) device.ChangeString(sim_point::MON_AGENT_INFO, "elsewhere");
    if (Is("threads")) device.FailPoint(SimAccess::READ, sim_point::SERVER_MAX_FILE_SIZE, 5, 1, 30);
    SimFault fault;
    fault.sizeDelta = Is("short") ? -1 : 0;
    fault.stuck = Is("stuck");
    device.SetFault(SimOperation::FETCH, fault);
    fault.refuse = Is("refuse");
    device.SetFault(SimOperation::PUSH, fault);
}

/// @return what Run() returns, and in `lines` what it prints
int RunChecks(ky_platform_check::Options options, const char* fault, std::string& lines) {
    g_fault = fault;
    if (Is("waits")) options.bound = 300;
    if (Is("stuck")) options.proxyBound = 300;
    options.connect = [connect = options.connect] {
        auto device = connect();
        BreakDevice(device);
        return device;
    };
    char* text = nullptr;
    size_t size = 0;
    std::FILE* const out = open_memstream(&text, &size);
    const int status = ky_platform_check::Run(options, out);
    std::fclose(out);
    lines = text;
    std::free(text);
    return status;
}

int Complain(const std::string& what, const std::string& lines) {
    std::printf("%s:\n%s", what.c_str(), lines.c_str());
    return 1;
}

}  // namespace

int main() {
    ky_platform_check::Options options = SetUpPlatformCheck();
    options.workDirectory = std::getenv("KY_IPC_DIR");
    options.listOnly = true;
    std::string unproven;
    std::string lines;
    int wrong = RunChecks(options, "", unproven);
    options.listOnly = false;
    for (const auto& row : FAULTS) {
        options.filter = row.check;
        if (RunChecks(options, "", lines) != 0) wrong += Complain("fails without a fault", lines);
        if (RunChecks(options, row.fault, lines) != 1 || lines.find("not ok 1 - ") == std::string::npos)
            wrong += Complain(std::string(row.fault) + " is not noticed", lines);
        const size_t at = unproven.find(row.check);
        if (at != std::string::npos) unproven.erase(at, unproven.find('\n', at) + 1 - at);
    }
    if (!unproven.empty()) wrong += Complain("no fault is known for", unproven);
    if (!std::filesystem::is_empty(options.workDirectory)) wrong += Complain("something is left", "");
    return wrong == 0 ? 0 : 1;
}
