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
#include <numeric>
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
        return Call(7, &KyPldProxy::GetMaiString, value, device, pointId, mmIdx, idx, uom, norm, option);
    }
    int GetMaiUint32(unsigned int& value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm) override {
        return Call(7, &KyPldProxy::GetMaiUint32, value, device, pointId, mmIdx, idx, uom, norm);
    }
    int SetMaiString(const char* value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int option,
                     unsigned int timeout) override {
        return Call(7, &KyPldProxy::SetMaiString, value, device, pointId, mmIdx, idx, uom, norm, option,
                    timeout);
    }
    int SetMaiUint32(unsigned int value, unsigned short device, unsigned short pointId, unsigned short mmIdx,
                     unsigned short idx, unsigned short uom, short norm, unsigned int timeout) override {
        return Call(7, &KyPldProxy::SetMaiUint32, value, device, pointId, mmIdx, idx, uom, norm, timeout);
    }
    int GetMaxModuleCount(unsigned int& count, unsigned short device, unsigned short reportId) override {
        return Call(7, &KyPldProxy::GetMaxModuleCount, count, device, reportId);
    }
    int GetPointReportId(unsigned int& reportId, unsigned short device, unsigned short pointId) override {
        return Call(7, &KyPldProxy::GetPointReportId, reportId, device, pointId);
    }

protected:
    bool DoGetDevFile(unsigned short device, const std::string& option, const std::string& name) override {
        return Call(false, &KyPldProxy::GetDevFile, device, option, name);
    }
    bool DoPutDevFile(unsigned short device, const std::string& directory, const std::string& name,
                      const std::string& xferName) override {
        return Call(false, &KyPldProxy::PutDevFile, device, directory, name, xferName);
    }

private:
    template <typename Result, typename Operation, typename... Arguments>
    Result Call(Result failure, Operation operation, Arguments&... arguments) {
        if (failing::Take(failing::PROXY_THROW)) throw failure;
        if (failing::Take(failing::PROXY_STATUS)) return failure;
        const failing::Scope unharmed(false);
        return ((*m_device).*operation)(arguments...);
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
            return Subject([this] { return service->Start(); }) &&
                   WaitUntil([] { return Record().GetStatus() == Status::TFER_STATUS_NONE; }, 1s);
        } catch (const std::exception&) {
            return false;
        }
    }

    /// The service's record; one with a number that is no status if it does not say.
    static Status Record() {
        const std::unique_ptr<KyTferMsg> reply(TferSvcMsgClient::GetInstance()->GetStatus());
        if (const auto* const record = dynamic_cast<Status*>(reply.get())) return *record;
        failing::EndShortage();
        Status none(0);
        none.SetStatus(static_cast<Status::TferStatus>(-1));
        return none;
    }

    /// Makes a request. Then hands the engine the device's changes until it has ended all it had to do, and lets
    /// the time limit pass.
    /// @return what has come of the request
    template <typename Request>
    Verdict Ask(Request request) {
        const Status answer = Subject(request);
        EXPECT_TRUE(WaitUntil([this] {
            DeliverAll();
            if (engine->WorkerRunning()) return false;
            if (ThreadCount() == m_threads && DeliverAll() == 0) return true;
            SteppedTime::Advance(181s);
            return false;
        })) << "a thread does not end";
        record = engine->GetStatus("");
        EXPECT_NE(record.GetStatus(), Status::TFER_STATUS_INPROGRESS);
        const Status copy = Subject([this] { return engine->GetStatus(""); });
        EXPECT_TRUE(copy.GetStatusMsg() == record.GetStatusMsg() ||
                    copy.GetStatus() == Status::TFER_STATUS_FAIL);
        ExpectWholeOrNone([this] { return record.GetJsonStatus(); });
        if (answer.GetStatus() == Status::TFER_STATUS_FAIL) return REFUSED;
        EXPECT_EQ(answer.GetStatus(), Status::TFER_STATUS_INPROGRESS);
        return record.GetStatus() == Status::TFER_STATUS_COMPLETE ? HARMLESS : FAILED;
    }

    template <typename Document>
    static void ExpectWholeOrNone(Document document) {
        const std::string text = Subject(document);
        EXPECT_TRUE(text.empty() ? failing::HasFailed() : text == document()) << text;
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
    Status record{0};  ///< after Ask

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
    const Verdict verdict = world.Ask([&] { return world.engine->GetFileFromDevRequest(kName, kSize); });
    EXPECT_TRUE(verdict != HARMLESS || world.Fetched(kName) == world.bytes);
    return verdict;
}

Verdict Push(World& world) {
    WriteFile(kUp + "/" + kName, world.bytes);
    const Verdict verdict = world.Ask([&] { return world.engine->PutFileToDevRequest(kUp, kName); });
    EXPECT_FALSE(verdict == REFUSED && fs::exists(kStaging + kName)) << "a refused file does not stay";
    EXPECT_TRUE(verdict != HARMLESS || ReadFile(world.files / world.record.GetXferFileName()) == world.bytes);
    return verdict;
}

Verdict Directory(World& world) {
    RemoveFetched("listing.txt");
    const Verdict verdict = world.Ask([&] { return world.engine->GetDirectoryFromDevRequest(); });
    if (verdict != HARMLESS) return verdict;
    Subject([&] { world.engine->CreateDirectoryFromFile(world.record.GetXferFullFilePath()); });
    const std::string text = world.Fetched("listing.txt");
    EXPECT_EQ(text, world.device->ListingText());
    std::istringstream file(text);
    KyTferDirectory listing;
    Subject([&] { return ky_directory::ReadBlankSeparatedListing(file, listing); });
    World::ExpectWholeOrNone(
        [&] { return listing.GetEntryListAsJSONString(kName, 0, 9, "", Status::TFER_STATUS_COMPLETE); });
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
        World::Record();  // a request that was sent before this one begins before the next
        record = World::Record();
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
        // All but what a late monitor may have changed.
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
    return world.StartService() ? RoundTrip(world) : REFUSED;
}

/// No operation of an engine: what a caller does with what it holds.
Verdict Copies(World&) {
    KyTferPutDevFile request(0), assigned(0);
    request.SetRespFifo(kName);
    request.SetOrigFileName(kName);
    request.SetSrcPath(kName);
    const KyTferPutDevFile copied = Subject([&] { return KyTferPutDevFile(request); });
    Subject([&] { return &(assigned = request); });
    for (const KyTferPutDevFile* const copy : {&copied, &std::as_const(assigned)}) {
        EXPECT_TRUE(!copy->IsWhole() || (copy->GetRespFifo() == kName && copy->GetOrigFileName() == kName &&
                                         copy->GetSrcPath() == kName));
        EXPECT_TRUE(copy->IsWhole() || failing::HasFailed());
    }
    const KyTferDirEntry entry(kName, kName, kName, kName, 1, 1);
    const KyTferDirEntry copy = Subject([&] { return KyTferDirEntry(entry); });
    EXPECT_TRUE(copy.IsWhole() ? copy.GetFileType() == kName : failing::HasFailed());
    World::ExpectWholeOrNone([&] { return entry.GetFullXferFilePath(); });
    return HARMLESS;
}

void StartEngine(World& world) {
    world.StartEngine();
}

const struct Operation {
    std::string name;
    Verdict (*act)(World& world);
    void (*prepare)(World& world);
    failing::Who who;
} kOperations[] = {
    {"Fetch", Fetch, StartEngine, failing::ALL},
    {"Push", Push, StartEngine, failing::ALL},
    {"Directory", Directory, StartEngine, failing::ALL},
    {"Client", RoundTrip, [](World& world) { EXPECT_TRUE(world.StartService()); }, failing::THIS_THREAD},
    {"Copies", Copies, [](World&) {}, failing::THIS_THREAD},
    {"ServiceStart", ServiceStart, [](World&) {}, failing::ALL},
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
    count[verdict] += failed;
    EXPECT_TRUE(failed || verdict == HARMLESS);
    failing::Begin(failing::KINDS, failing::ALL);
    const auto works = [&] {
        SteppedTime::Advance(181s);  // a monitor may still hold the record of the one before
        return operation.act(world) == HARMLESS;
    };
    EXPECT_TRUE(WaitUntil(works)) << "the next one, without a fault";
    return failed;
}

class FaultSweep : public testing::TestWithParam<Operation> {};

TEST_P(FaultSweep, AllKinds) {
    const failing::Scope harness(false);
    const Operation& operation = GetParam();
    ky_host::SetLogSink([](void*, int, const char*, const char*, const char*) {}, nullptr);
    int all[3] = {};
    RunOnce(operation, failing::KINDS, all);  // makes what is made once
    for (int kind = 0; kind < failing::KINDS; ++kind) {
        // A service without memory answers nobody, and those who ask wait; the engine's operations have this.
        if (kind == failing::MEMORY_FROM_ON && operation.act == ServiceStart) continue;
        failing::ForgetPlaces();
        int count[3] = {};
        bool goOn = true;
        while (goOn) {
            const long allocations = failing::LiveAllocations();
            const int descriptors = OpenDescriptors();
            const int threads = ThreadCount();
            goOn = RunOnce(operation, static_cast<failing::Kind>(kind), count);
            EXPECT_EQ(failing::LiveAllocations(), allocations);
            EXPECT_EQ(OpenDescriptors(), descriptors);
            EXPECT_TRUE(WaitUntil([&] { return ThreadCount() == threads; }));
            if (!HasFailure()) continue;
            failing::PrintPlace();
            FAIL() << kKinds[kind];
        }
        std::cout << kKinds[kind] << ": " << count[REFUSED] << " refused, " << count[FAILED] << " failed, "
                  << count[HARMLESS] << " harmless" << std::endl;
        std::transform(count, std::end(count), all, all, std::plus<>());
    }
    EXPECT_GT(std::accumulate(all, std::end(all), 0), 20) << "places where calls have failed";
    ky_host::SetLogSink(nullptr, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Operations, FaultSweep, testing::ValuesIn(kOperations),
                         [](const auto& operation) { return operation.param.name; });

}  // namespace
