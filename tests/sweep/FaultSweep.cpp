// Every place from which a call can fail fails in a run of its own. In each run nothing crashes or leaks, the
// transaction ends, failed if it cannot go on, and the next one works.
//
// A place is a call with the stack above it; its first call in the run fails. A sweep ends with the first run
// without a failed call. Counting calls would not do: threads that poll make a different number in each run.
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <jansson.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

#include "directory/KyTferDirectory.h"
#include "engine/KyTferClient.h"
#include "messages/KyTferMsgFactory.h"
#include "platform/KyIpcMsgBuffer.h"
#include "simdevice/SimDevice.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/SteppedTime.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Status = KyTferStatusMsg;

namespace {

enum Kind { MEMORY, MEMORY_FROM_ON, STAT, RENAME, OPEN, PROXY_STATUS, PROXY_THROW, KINDS };

thread_local bool t_subject = true;  // calls of this thread can fail
std::atomic<long> s_allocations{0};  // not freed yet
std::atomic<bool> s_armed{false}, s_failed{false};

// Guarded by the mutex.
std::mutex s_mutex;
Kind s_kind = KINDS;
size_t s_places[1 << 14];  // hashed stacks of the places that have failed; 0 for a free entry
void* s_stack[48];         // of the call that was looked at last, which is the failed one if there is one
int s_depth = 0;

/// Sets whether calls of this thread can fail, for the length of a block.
struct Scope {
    explicit Scope(bool subject) : before(std::exchange(t_subject, subject)) {}
    ~Scope() { t_subject = before; }
    const bool before;
};

/// Whether the place has not failed before.
bool IsDue() {
    s_depth = backtrace(s_stack, std::size(s_stack));
    const std::string_view bytes(reinterpret_cast<char*>(s_stack),
                                 sizeof *s_stack * static_cast<size_t>(s_depth));
    const size_t hash = std::hash<std::string_view>()(bytes);
    size_t at = hash % std::size(s_places);
    while (s_places[at] != 0 && s_places[at] != hash)
        at = (at + 1) % std::size(s_places);
    if (s_places[at] == hash) return false;
    s_places[at] = hash;
    return s_failed = true;
}

/// Whether the call that is being made is to fail. Sets errno if so.
bool Fails(Kind kind, int error) {
    if (!s_armed || !t_subject) return false;
    const Scope unharmed(false);
    const std::lock_guard<std::mutex> lock(s_mutex);
    const bool lasting = s_kind == MEMORY_FROM_ON;
    const bool fails = kind == (lasting ? MEMORY : s_kind) && (s_failed ? lasting : IsDue());
    if (fails) errno = error;
    return fails;
}

/// The function that a call would reach without this file.
template <typename Function>
Function* Real(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

void* __real_malloc(size_t size);
void* __real_realloc(void* block, size_t size);
void __real_free(void* block);

void* __wrap_malloc(size_t size) {
    void* const block = Fails(MEMORY, ENOMEM) ? nullptr : __real_malloc(size);
    if (block != nullptr) ++s_allocations;
    return block;
}
void* __wrap_realloc(void* block, size_t size) {
    if (block == nullptr) return __wrap_malloc(size);
    return Fails(MEMORY, ENOMEM) ? nullptr : __real_realloc(block, size);
}
void __wrap_free(void* block) {
    if (block != nullptr) --s_allocations;
    __real_free(block);
}

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the C library's are reserved ones
int stat(const char* path, struct stat* found) noexcept {
    return Fails(STAT, EIO) ? -1 : Real(&stat, "stat")(path, found);
}
int fstat(int fd, struct stat* found) noexcept {
    return Fails(STAT, EIO) ? -1 : Real(&fstat, "fstat")(fd, found);
}
int rename(const char* from, const char* to) noexcept {
    return Fails(RENAME, EXDEV) ? -1 : Real(&rename, "rename")(from, to);
}
int open(const char* path, int flags, ...) {
    constexpr mode_t kMode = 0666;  // no other mode is in use
    return Fails(OPEN, EMFILE) ? -1 : Real(&open, "open")(path, flags, kMode);
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
}

// The forms for arrays use these.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return __wrap_malloc(size == 0 ? 1 : size);
}
void* operator new(size_t size) {
    void* const block = operator new(size, std::nothrow);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
void operator delete(void* block) noexcept {
    __wrap_free(block);
}
void operator delete(void* block, size_t) noexcept {
    __wrap_free(block);
}

namespace {

// Too long to be stored within a string.
const std::string kName = "recording-of-the-last-twenty-four-hours.log";
const std::string kBytes(3000, 'b');
const std::string kStaging = "/var/local/tal/pldserver/";
const std::string kUp = "/var/local/files that go up to the device";
constexpr int kThreads = 2;  // this one and the device's

/// Returns what `call` returns. Calls of this thread can fail in it.
template <typename Call>
auto Subject(Call call) -> decltype(call()) {
    const Scope scope(true);
    return call();
}

/// The text that `make` returns must be complete, or empty after a fault.
template <typename Make>
void ExpectWholeOrEmpty(Make make) {
    const std::string text = Subject(make);
    EXPECT_TRUE(text.empty() ? s_failed.load() : text == make()) << text;
}

/// Stands before the device: its calls can fail, those that the device makes itself cannot.
class Relay : public KyPldProxy {
public:
    explicit Relay(SimDevice& device) : m_device(device) {}

private:
    using Id = unsigned short;
    using Int = unsigned int;
    using Text = const std::string&;

    int GetMaiString(std::string& value, Id d, Id p, Id m, Id i, Id u, short n, Int o) override {
        return Call(7, &KyPldProxy::GetMaiString, value, d, p, m, i, u, n, o);
    }
    int GetMaiUint32(Int& value, Id d, Id p, Id m, Id i, Id u, short n) override {
        return Call(7, &KyPldProxy::GetMaiUint32, value, d, p, m, i, u, n);
    }
    int SetMaiString(const char* value, Id d, Id p, Id m, Id i, Id u, short n, Int o, Int t) override {
        return Call(7, &KyPldProxy::SetMaiString, value, d, p, m, i, u, n, o, t);
    }
    int SetMaiUint32(Int value, Id d, Id p, Id m, Id i, Id u, short n, Int t) override {
        return Call(7, &KyPldProxy::SetMaiUint32, value, d, p, m, i, u, n, t);
    }
    int GetMaxModuleCount(Int&, Id, Id) override { return 7; }
    int GetPointReportId(Int&, Id, Id) override { return 7; }
    void AbortTransfer(Id d) override { m_device.AbortTransfer(d); }
    bool DoGetDevFile(Id d, Text option, Text name) override {
        return Call(false, &KyPldProxy::GetDevFile, d, option, name);
    }
    bool DoPutDevFile(Id d, Text from, Text name, Text to) override {
        return Call(false, &KyPldProxy::PutDevFile, d, from, name, to);
    }

    template <typename Result, typename Operation, typename... Arguments>
    Result Call(Result failure, Operation operation, Arguments&... arguments) {
        if (Fails(PROXY_THROW, 0)) throw failure;
        if (Fails(PROXY_STATUS, 0)) return failure;
        const Scope unharmed(false);
        return (m_device.*operation)(arguments...);
    }

    SimDevice& m_device;
};

/// An engine, and a device with one file.
class World {
public:
    World() {
        WriteFile(files / kName, kBytes);
        fs::remove_all("/var/local/tal");
        fs::create_directories(kUp);
        device->SetListener([this](auto& change) { Subject([&] { engine.DataChange(change); }); });
        EXPECT_EQ(engine.Init(3, &m_relay), 0);
        device->DeliverPending();
    }
    ~World() { s_armed = false; }

    /// Makes a request, delivers the device's changes until no worker runs, and lets the time limit pass.
    /// @return whether the transaction has completed
    template <typename Request>
    bool Completes(Request request) {
        accepted = Subject(request).GetStatus() == Status::TFER_STATUS_INPROGRESS;
        EXPECT_TRUE(WaitUntil([this] {
            if (device->DeliverPending() > 0 || engine.WorkerRunning()) return false;
            SteppedTime::Advance(181s);
            return ThreadCount() == kThreads;
        })) << "a thread does not end";
        record = engine.GetStatus("");
        EXPECT_NE(record.GetStatus(), Status::TFER_STATUS_INPROGRESS);
        const Status copy = Subject([this] { return engine.GetStatus(""); });
        EXPECT_TRUE(copy.GetStatusMsg() == record.GetStatusMsg() ||
                    copy.GetStatus() == Status::TFER_STATUS_FAIL);
        ExpectWholeOrEmpty([this] { return record.GetJsonStatus(); });
        EXPECT_TRUE(!accepted || record.GetStatus() != Status::TFER_STATUS_NONE);
        return accepted && record.GetStatus() == Status::TFER_STATUS_COMPLETE;
    }

    TempDir files;
    std::unique_ptr<SimDevice> device = SimDevice::Builder(files.Path()).ManualDelivery(true).Build();
    KyTferClient engine;
    Status record{0};       ///< of the last transaction
    bool accepted = false;  ///< what the last request's caller was told

private:
    Relay m_relay{*device};
};

/// As World::Completes, for a request that brings a file. One that could not be moved is where it landed.
template <typename Request>
bool Brings(World& world, const std::string& name, Request request) {
    fs::remove(kStaging + "3/tferFiles/" + name);
    if (!world.Completes(request)) return false;
    const bool moved = !s_failed || fs::exists(kStaging + "3/tferFiles/" + name);
    const std::string bytes = ReadFile(kStaging + (moved ? "3/tferFiles/" : "3/") + name);
    EXPECT_EQ(bytes, name == kName ? kBytes : world.device->ListingText());
    return true;
}

bool Fetch(World& world) {
    return Brings(world, kName, [&] { return world.engine.GetFileFromDevRequest(kName, 3000); });
}

bool Directory(World& world) {
    if (!Brings(world, "listing.txt", [&] { return world.engine.GetDirectoryFromDevRequest(); }))
        return false;
    const std::string path = world.record.GetXferFullFilePath();
    Subject([&] { world.engine.CreateDirectoryFromFile(path); });
    KyTferDirectory listing;
    listing.AddEntry("", kName, kName, "", 1, 1);
    ExpectWholeOrEmpty(
        [&] { return listing.GetEntryListAsJSONString(kName, 0, 9, "", world.record.GetStatus()); });
    return true;
}

bool Push(World& world) {
    WriteFile(kUp + "/" + kName, kBytes);
    const bool complete = world.Completes([&] { return world.engine.PutFileToDevRequest(kUp, kName); });
    EXPECT_TRUE(world.accepted || !fs::exists(kStaging + kName)) << "a refused file does not stay";
    EXPECT_TRUE(!complete || ReadFile(world.files / world.record.GetXferFileName()) == kBytes);
    return complete;
}

std::string BytesOf(KyTferMsg& message) {
    KyIpcMsgBuffer buffer(0);
    message.Serialize(&buffer);
    return {reinterpret_cast<char*>(buffer.GetBuf()), static_cast<size_t>(buffer.GetLength())};
}

/// Copies a message and an entry of a listing, and sends the message. If nothing throws, all of them are complete.
void CopyAndSend() try {
    Status made(0), assigned(0);
    made.SetCallerContext(kName);
    made.SetStatusMsg(kName);
    assigned = made;
    Status copy(assigned);
    KyIpcMsgBuffer buffer(0);
    copy.Serialize(&buffer);
    std::unique_ptr<KyTferMsg> read;
    EXPECT_NO_THROW(read.reset(KyTferMsgFactory::CreateMsgFromBuffer(&buffer)));
    const KyTferDirEntry entry(kName, kName, kName, kName, 1, 1);
    KyTferDirEntry filled, last;
    filled.Init(entry.GetPath(), entry.GetOrigFileName(), entry.GetXferFileName(), entry.GetFileType(), 1, 1);
    last = filled;
    const Scope unharmed(false);
    EXPECT_TRUE(read ? BytesOf(*read) == BytesOf(made) : s_failed.load());
    ExpectWholeOrEmpty([&] { return last.GetEntryAsJSONString(); });
    EXPECT_EQ(last.GetEntryAsJSONString(), entry.GetEntryAsJSONString());
} catch (const std::bad_alloc&) {
    EXPECT_TRUE(s_failed);
}

bool Values(World&) {
    Subject(CopyAndSend);
    return true;
}

/// One run, and the next transaction without faults. @return whether a call has failed
bool RunOnce(bool (*act)(World& world), Kind kind) {
    World world;
    if (kind != s_kind) std::fill(std::begin(s_places), std::end(s_places), 0);
    s_kind = kind;
    s_armed = true;
    const bool complete = act(world);
    s_armed = false;
    const bool failed = s_failed.exchange(false);
    EXPECT_TRUE(failed || complete);
    EXPECT_TRUE(act(world)) << "the next one, without a fault";
    return failed;
}

/// A name, and what makes a transaction and returns false if it was refused or has failed.
using Operation = std::pair<const char*, bool (*)(World& world)>;
class FaultSweep : public testing::TestWithParam<Operation> {};

TEST_P(FaultSweep, AllKinds) {
    const Scope harness(false);
    const LogCapture silence(0);
    RunOnce(GetParam().second, KINDS);  // allocates what lives as long as the process
    int runs = 0;
    for (int kind = 0; kind < KINDS; ++kind) {
        for (bool goOn = true; goOn; ++runs) {
            const long allocations = s_allocations;
            const int descriptors = OpenDescriptors();
            goOn = RunOnce(GetParam().second, static_cast<Kind>(kind));
            EXPECT_EQ(s_allocations, allocations);
            EXPECT_EQ(OpenDescriptors(), descriptors);
            if (!HasFailure()) continue;
            backtrace_symbols_fd(s_stack, s_depth, STDERR_FILENO);
            FAIL() << "kind " << kind;
        }
    }
    EXPECT_GT(runs, 50) << "too few places were found";
}

INSTANTIATE_TEST_SUITE_P(Operations, FaultSweep,
                         testing::Values(Operation{"Fetch", Fetch}, Operation{"Push", Push},
                                         Operation{"Directory", Directory}, Operation{"Values", Values}),
                         [](const auto& operation) { return operation.param.first; });

}  // namespace
