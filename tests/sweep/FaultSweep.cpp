// Every call that can fail, failing once, in every operation: whatever fails, nothing crashes or is lost, the
// transaction comes to an end, and the next one works.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>

#include "client/TferSvcMsgClient.h"
#include "directory/KyBlankSeparatedListing.h"
#include "directory/KyTferDirectory.h"
#include "engine/KyTferClient.h"
#include "host/KyHostLog.h"
#include "messages/KyTferPutDevFile.h"
#include "messages/KyTferRespMsg.h"
#include "platform/KyIpcMsgBuffer.h"
#include "service/TferService.h"
#include "simdevice/SimDevice.h"
#include "support/Eventually.h"
#include "support/SteppedTime.h"
#include "support/TempDir.h"
#include "sweep/FailingCalls.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Status = KyTferStatusMsg;

extern "C" {
int __real_poll(pollfd* files, nfds_t count, int milliseconds);

/// The client waits a minute for an answer. After a fault there may be none.
int __wrap_poll(pollfd* files, nfds_t count, int milliseconds) {
    constexpr int kStep = 30;
    int ready = 0;
    for (; milliseconds > 1000 && ready == 0 && !failing::HasFailed(); milliseconds -= kStep)
        ready = __real_poll(files, count, kStep);
    return ready != 0 ? ready : __real_poll(files, count, std::min(milliseconds, kStep));
}
}

namespace {

// Too long to be stored within a string.
const std::string kName = "recording of the last twenty-four hours.log";
const std::string kStaging = "/var/local/tal/pldserver/";
const std::string kLanding = kStaging + "3/";
const std::string kDownload = kLanding + "tferFiles/";
const std::string kUp = "/var/local/files that go up to the device";
constexpr int kSize = 3000;

enum Verdict { REFUSED, FAILED, HARMLESS };

/// What `call` returns. In it, calls of this thread can fail.
template <typename Call>
auto Subject(Call call) -> decltype(call()) {
    const failing::Scope scope(true);
    return call();
}

/// The device, none of whose own calls fail. Its operations do.
class Relay : public KyPldProxy {
public:
    explicit Relay(const std::unique_ptr<SimDevice>& device) : m_device(device) {}

    int GetMaiString(std::string& value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int option) override {
        return Call(
            7, [&] { return m_device->GetMaiString(value, device, pointId, mmIdx, idx, uom, norm, option); });
    }
    int GetMaiUint32(unsigned int& value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm) override {
        return Call(7, [&] { return m_device->GetMaiUint32(value, device, pointId, mmIdx, idx, uom, norm); });
    }
    int SetMaiString(const char* value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int option,
                     unsigned int timeout) override {
        return Call(7, [&] {
            return m_device->SetMaiString(value, device, pointId, mmIdx, idx, uom, norm, option, timeout);
        });
    }
    int SetMaiUint32(unsigned int value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int timeout) override {
        return Call(7, [&] {
            return m_device->SetMaiUint32(value, device, pointId, mmIdx, idx, uom, norm, timeout);
        });
    }
    int GetMaxModuleCount(unsigned int& count, unsigned short device, unsigned short reportId) override {
        return Call(7, [&] { return m_device->GetMaxModuleCount(count, device, reportId); });
    }
    int GetPointReportId(unsigned int& reportId, unsigned short device, unsigned short pointId) override {
        return Call(7, [&] { return m_device->GetPointReportId(reportId, device, pointId); });
    }

protected:
    bool DoGetDevFile(unsigned short device, const std::string& option, const std::string& name) override {
        return Call(false, [&] { return m_device->GetDevFile(device, option, name); });
    }
    bool DoPutDevFile(unsigned short device, const std::string& directory, const std::string& name,
                      const std::string& xferName) override {
        return Call(false, [&] { return m_device->PutDevFile(device, directory, name, xferName); });
    }

private:
    template <typename Result, typename Operation>
    static Result Call(Result failure, Operation operation) {
        if (failing::Take(failing::PROXY_THROW)) throw failure;
        if (failing::Take(failing::PROXY_STATUS)) return failure;
        const failing::Scope unharmed(false);
        return operation();
    }

    const std::unique_ptr<SimDevice>& m_device;
};

/// A device with a file, and what talks to it.
class World : public DeviceLink {
public:
    World() {
        bytes.resize(kSize);
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<char>((i * 2654435761U) >> 13);
        WriteFile(files / kName, bytes);
        fs::remove_all("/var/local/tal");
        fs::create_directories(kUp);
        fs::create_directories("/var/tmp/dmp");
        setenv("KY_IPC_DIR", (files / "a directory for the FIFOs").c_str(), 1);
        Renew();
    }
    ~World() override { failing::End(); }

    /// Ends the service and with it the device, of which it makes a new one.
    void Renew() {
        service.reset();
        device = SimDevice::Builder(files.Path()).ManualDelivery(true).Build();
    }

    void StartEngine() {
        m_threads = ThreadCount();
        engine = std::make_unique<KyTferClient>();
        EXPECT_EQ(engine->Init(3, &relay), 0);
        DeliverAll();
    }

    /// Starts the service; false if it refuses, which its program takes for the end as it does an exception.
    bool StartService() {
        service = std::make_unique<TferService>(3, *this);
        try {
            if (!Subject([this] { return service->Start(); })) return false;
        } catch (const std::exception&) {
            return false;
        }
        return WaitUntil([this] { return Record().GetStatus() == Status::TFER_STATUS_NONE; }, 1s);
    }

    /// The service's record; one with a number that is no status if it does not say.
    Status Record() const {
        const std::unique_ptr<KyTferMsg> reply(TferSvcMsgClient::GetInstance()->GetStatus());
        const auto* const record = dynamic_cast<Status*>(reply.get());
        if (record == nullptr) failing::EndShortage();
        Status none(0);
        none.SetStatus(static_cast<Status::TferStatus>(-1));
        return record == nullptr ? none : *record;
    }

    /// Hands the engine the device's changes until it has ended all it had to do, and lets the time limit pass.
    void Settle() {
        EXPECT_TRUE(WaitUntil([this] {
            DeliverAll();
            if (engine->WorkerRunning()) return false;
            if (ThreadCount() == m_threads && DeliverAll() == 0) return true;
            SteppedTime::Advance(181s);
            return false;
        })) << "a thread does not end";
    }

    /// What has come of an accepted or refused request.
    Verdict Judge(const Status& answer) {
        const Status record = engine->GetStatus("");
        const Status copy = Subject([this] { return engine->GetStatus(""); });
        EXPECT_NE(record.GetStatus(), Status::TFER_STATUS_INPROGRESS);
        if (copy.GetStatusMsg() != record.GetStatusMsg()) {
            EXPECT_EQ(copy.GetStatus(), Status::TFER_STATUS_FAIL);
        }
        ExpectWholeOrNone(record.GetJsonStatus(), Subject([&] { return record.GetJsonStatus(); }));
        if (answer.GetStatus() == Status::TFER_STATUS_FAIL) return REFUSED;
        EXPECT_EQ(answer.GetStatus(), Status::TFER_STATUS_INPROGRESS);
        return record.GetStatus() == Status::TFER_STATUS_COMPLETE ? HARMLESS : FAILED;
    }

    static void ExpectWholeOrNone(const std::string& whole, const std::string& text) {
        EXPECT_TRUE(text.empty() || text == whole) << text;
        EXPECT_TRUE(!text.empty() || failing::HasFailed());
    }

    /// A file that was fetched. If it could not be moved it lies where it has landed, and counts as fetched.
    std::string Fetched(const std::string& name) const {
        const std::string path = kDownload + name;
        return ReadFile(failing::HasFailed() && !fs::exists(path) ? kLanding + name : path);
    }

    TempDir files;
    std::string bytes;
    std::unique_ptr<SimDevice> device;
    Relay relay{device};
    std::unique_ptr<KyTferClient> engine;
    std::unique_ptr<TferService> service;

private:
    KyPldProxy& Proxy() override { return relay; }
    int ChangesDescriptor() const override { return device->EventFd(); }
    void Abort() override { device->Abort(); }
    void DeliverChanges(const ChangeReceiver& receiver) override {
        const failing::Scope unharmed(false);
        device->SetListener([&](const KyValChgInfo& change) { Subject([&] { receiver(change); }); });
        while (device->DeliverPending() > 0) {
        }
        device->SetListener(nullptr);
    }
    size_t DeliverAll() {
        size_t count = 0;
        DeliverChanges([&](const KyValChgInfo& change) { ++count, engine->DataChange(change); });
        return count;
    }

    int m_threads = 0;  // without the engine's
};

void RemoveFetched(const std::string& name) {
    fs::remove(kDownload + name);
    fs::remove(kLanding + name);
}

Verdict Fetch(World& world) {
    RemoveFetched(kName);
    const Status answer = Subject([&] { return world.engine->GetFileFromDevRequest(kName, kSize); });
    world.Settle();
    const Verdict verdict = world.Judge(answer);
    EXPECT_TRUE(verdict != HARMLESS || world.Fetched(kName) == world.bytes);
    return verdict;
}

Verdict Push(World& world) {
    WriteFile(kUp + "/" + kName, world.bytes);
    const Status answer = Subject([&] { return world.engine->PutFileToDevRequest(kUp, kName); });
    world.Settle();
    const Verdict verdict = world.Judge(answer);
    const std::string staged = kStaging + kName;
    EXPECT_FALSE(verdict == REFUSED && fs::exists(staged)) << "a refused file does not stay";
    EXPECT_TRUE(verdict != HARMLESS || ReadFile(world.files / answer.GetXferFileName()) == world.bytes);
    return verdict;
}

Verdict Directory(World& world) {
    RemoveFetched("listing.txt");
    const Status answer = Subject([&] { return world.engine->GetDirectoryFromDevRequest(); });
    world.Settle();
    const Verdict verdict = world.Judge(answer);
    if (verdict != HARMLESS) return verdict;
    const Status record = world.engine->GetStatus("");
    Subject([&] { world.engine->CreateDirectoryFromFile(record.GetXferFullFilePath()); });
    const std::string text = world.Fetched(record.GetXferFileName());
    EXPECT_EQ(text, world.device->ListingText());
    std::istringstream file(text);
    KyTferDirectory listing;
    Subject([&] { return ky_directory::ReadBlankSeparatedListing(file, listing); });
    const auto page = [&] {
        return listing.GetEntryListAsJSONString(kName, 0, 9, "", Status::TFER_STATUS_COMPLETE);
    };
    World::ExpectWholeOrNone(page(), Subject(page));
    return verdict;
}

/// A round trip through the service, with the faults in the client's calls or in all.
Verdict RoundTrip(World& world) {
    TferSvcMsgClient& client = *TferSvcMsgClient::GetInstance();
    RemoveFetched(kName);
    const std::unique_ptr<KyTferRespMsg> answer(Subject([&] { return client.GetDevFile(kName, "", kSize); }));
    const bool refused = !answer || answer->GetResultStatus() == TferService::kRefused;
    if (refused && !failing::HasFailed()) return REFUSED;  // the transaction before has not ended yet
    Status record(0);
    bool patient = true;  // a monitor may say that the file is complete before its worker has moved it
    const auto ended = [&] {
        world.Record();  // a request that was sent before this one begins before the next
        record = world.Record();
        // Without a name it is not the transaction's record, but says that there is no memory for that.
        const auto status =
            record.GetXferFileName().empty() && !refused ? Status::TFER_STATUS_REQUESTED : record.GetStatus();
        return status == Status::TFER_STATUS_FAIL || (refused && status == Status::TFER_STATUS_NONE) ||
               (status == Status::TFER_STATUS_COMPLETE && (!patient || record.GetFilePath() == kDownload));
    };
    WaitUntil([&] { return failing::HasFailed() || ended(); });
    if (!WaitUntil(ended, 40ms)) {
        failing::End();
        patient = false;
        EXPECT_TRUE(WaitUntil([&] { return SteppedTime::Advance(181s), ended(); })) << record.GetStatus();
    }
    const std::unique_ptr<KyTferMsg> reply(Subject([&] { return client.GetStatus(); }));
    const auto* const copy = dynamic_cast<Status*>(reply.get());
    if (copy != nullptr && copy->GetStatusMsg() != "Out of memory") {
        // All but what a late monitor may have changed; the text comes last in the message.
        EXPECT_EQ(copy->GetRespFifo(), record.GetRespFifo());
        EXPECT_EQ(copy->GetXferFileName(), record.GetXferFileName());
        EXPECT_EQ(copy->GetStatusMsg().empty(), record.GetStatusMsg().empty());
    }
    EXPECT_TRUE(copy != nullptr || failing::HasFailed());
    if (refused) return REFUSED;
    EXPECT_EQ(answer->GetResultStatus(), TferService::kAccepted);
    if (record.GetStatus() != Status::TFER_STATUS_COMPLETE) return FAILED;
    EXPECT_EQ(world.Fetched(kName), world.bytes);
    return HARMLESS;
}

Verdict ServiceStart(World& world) {
    world.Renew();
    if (!world.StartService()) return REFUSED;
    return RoundTrip(world);
}

/// Whether two messages that are whole have the same bytes; one that is not whole does not count.
bool Agree(KyTferMsg& copy, KyTferMsg& original) {
    KyIpcMsgBuffer bytes[2] = {KyIpcMsgBuffer(0), KyIpcMsgBuffer(0)};
    copy.Serialize(&bytes[0]);
    original.Serialize(&bytes[1]);
    if (!copy.IsWhole()) return failing::HasFailed();
    return std::string_view(reinterpret_cast<char*>(bytes[0].GetBuf()), size_t(bytes[0].GetLength())) ==
           std::string_view(reinterpret_cast<char*>(bytes[1].GetBuf()), size_t(bytes[1].GetLength()));
}

template <typename Message>
void CopyTwice(Message& original) {
    original.SetTransId(kName);
    original.SetRespFifo(kName);
    Message copy = Subject([&] { return Message(original); });
    Message assigned(0);
    Subject([&] { return &(assigned = original); });
    EXPECT_TRUE((Agree(copy, original) && Agree(assigned, original)));
}

/// No operation of an engine: what a caller does with what it holds.
Verdict Copies(World&) {
    KyTferPutDevFile request(0);
    request.SetSrcPath(kName);
    request.SetOrigFileName(kName);
    CopyTwice(request);
    KyTferRespMsg reply(0);
    reply.SetResultMsg(kName);
    CopyTwice(reply);
    Status record(0);
    record.SetFilePath(kName);
    record.SetStatusMsg(kName);
    CopyTwice(record);
    const KyTferDirEntry entry(kName, kName, kName, kName, 1, 1);
    const KyTferDirEntry copy = Subject([&] { return KyTferDirEntry(entry); });
    EXPECT_TRUE(copy.IsWhole() ? copy.GetFileType() == kName : failing::HasFailed());
    const std::string path = Subject([&] { return entry.GetFullXferFilePath(); });
    EXPECT_TRUE(path == kName + "/" + kName || (path.empty() && failing::HasFailed()));
    return HARMLESS;
}

constexpr struct Operation {
    const char* name;
    Verdict (*act)(World& world);
    void (*prepare)(World& world);
    failing::Who who;
} kOperations[] = {
    {"fetch", Fetch, [](World& world) { world.StartEngine(); }, failing::ALL},
    {"push", Push, [](World& world) { world.StartEngine(); }, failing::ALL},
    {"directory fetch", Directory, [](World& world) { world.StartEngine(); }, failing::ALL},
    {"client", RoundTrip, [](World& world) { EXPECT_TRUE(world.StartService()); }, failing::THIS_THREAD},
    {"copies", Copies, [](World&) {}, failing::THIS_THREAD},
    {"service start", ServiceStart, [](World&) {}, failing::ALL},
};

constexpr const char* kKinds[] = {"memory", "memory from on", "threads",      "open",
                                  "read",   "write",          "stat",         "rename",
                                  "unlink", "mkfifo",         "proxy status", "proxy throws"};
static_assert(std::size(kKinds) == failing::KINDS);

/// One run, and the next transaction without faults; false if nothing has failed in it.
bool RunOnce(const Operation& operation, failing::Kind kind, int (&count)[3]) {
    World world;
    operation.prepare(world);
    failing::Begin(kind, operation.who);
    const Verdict verdict = operation.act(world);
    failing::End();
    const bool failed = failing::HasFailed();
    if (failed) ++count[verdict];
    EXPECT_TRUE(failed || verdict == HARMLESS);
    failing::Begin(failing::KINDS, failing::ALL);
    const auto works = [&] {
        SteppedTime::Advance(181s);  // a monitor may still hold the record of the one before
        return operation.act(world) == HARMLESS;
    };
    EXPECT_TRUE(WaitUntil(works)) << "the next one, without a fault";
    return failed;
}

class FaultSweep : public testing::TestWithParam<Operation> {
protected:
    FaultSweep() {
        ky_host::SetLogSink([](void*, int, const char*, const char*, const char*) {}, nullptr);
    }
    ~FaultSweep() override { ky_host::SetLogSink(nullptr, nullptr); }

    const failing::Scope m_harness{false};
};

TEST_P(FaultSweep, AllKinds) {
    int count[3] = {};
    RunOnce(GetParam(), failing::KINDS, count);  // makes what is made once
    for (int kind = 0; kind < failing::KINDS; ++kind) {
        // A service without memory answers nobody, and those who ask wait; the engine's operations have this.
        if (kind == failing::MEMORY_FROM_ON && GetParam().act == ServiceStart) continue;
        failing::ForgetPlaces();
        std::fill(std::begin(count), std::end(count), 0);
        bool goOn = true;
        while (goOn) {
            const long allocations = failing::LiveAllocations();
            const int descriptors = OpenDescriptors();
            const int threads = ThreadCount();
            goOn = RunOnce(GetParam(), static_cast<failing::Kind>(kind), count);
            EXPECT_EQ(failing::LiveAllocations(), allocations);
            EXPECT_EQ(OpenDescriptors(), descriptors);
            EXPECT_TRUE(WaitUntil([&] { return ThreadCount() == threads; }));
            if (!HasFailure()) continue;
            failing::PrintPlace();
            FAIL() << kKinds[kind];
        }
        std::cout << GetParam().name << " x " << kKinds[kind] << ": " << count[0] + count[1] + count[2]
                  << " sites, " << count[REFUSED] << " refused, " << count[FAILED] << " failed, "
                  << count[HARMLESS] << " harmless" << std::endl;
    }
}

INSTANTIATE_TEST_SUITE_P(Operations, FaultSweep, testing::ValuesIn(kOperations), [](const auto& operation) {
    std::string name = operation.param.name;
    std::replace(name.begin(), name.end(), ' ', '_');
    return name;
});

}  // namespace
