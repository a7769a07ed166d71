// A conversation of the engine with a device and its callers, in stepped time. The input says what the
// callers ask for, what the device answers and delivers, which calls of the proxy fail, and when time
// passes.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "engine/KyTferClient.h"
#include "fuzz/DeviceSide.h"
#include "fuzz/Fuzz.h"
#include "support/SteppedTime.h"

using fuzz::Require;
using std::chrono::seconds;

namespace {

constexpr char kOutgoing[] = "/var/local/tal/up";
constexpr auto kLongEnough = seconds(181);  // for every transaction, from when its monitor runs

class Conversation {
public:
    explicit Conversation(fuzz::Input& input)
        : m_input(input), m_device(Search(input.Byte()), [this] { m_check.Check(); }) {}

    void Run() {
        std::filesystem::create_directories(kOutgoing);
        Init();
        while (!m_stopped && !m_input.Empty())
            Step();
        if (!m_stopped) EndTransactions();
        if (!m_stopped) Stop();
    }

private:
    /// The search for the card's place takes most of a short conversation's time.
    static FuzzDevice::Search Search(unsigned form) {
        return form < 0xC0   ? FuzzDevice::NO_REPORT
               : form < 0xFC ? FuzzDevice::FOUND
                             : FuzzDevice::NEVER_FOUND;
    }

    void Init() {
        const unsigned failing = m_input.Byte();
        m_device.FailPoints(failing, m_input.Byte() % 2 == 1);
        m_device.SetValue(m_input.Byte() % 4);
        int sleeps = 0;
        std::thread stop;
        SteppedTime::OnSleep([&] {
            // The device does not know the card: this would go on for ever.
            if (++sleeps == 100) stop = std::thread([this] { m_engine.Stop(); });
        });
        m_engine.Init(3, &m_device);
        SteppedTime::OnSleep(nullptr);
        m_stopped = stop.joinable();
        if (m_stopped) stop.join();
        m_device.FailPoints(0, false);
        if (m_stopped) Stop();
    }

    void Step() {
        const unsigned step = m_input.Byte() % 16;
        if (step < 4) {
            Request(step);
        } else if (step == 4 && m_input.Byte() > 250) {
            Stop();
        } else if (step == 5) {
            SteppedTime::Advance(seconds(m_input.Byte()));
        } else if (step == 6) {
            fuzz::WaitUntil([&] { return !m_engine.WorkerRunning() || m_device.Held() > 0; });
        } else {
            m_side.Step(step);
        }
        if (!m_stopped) m_check.Check();
    }

    void Request(unsigned step) {
        if (step == 0) Fetch(DeviceSide::Name(m_input), static_cast<int>(m_input.Number()));
        if (step == 1) Push();
        if (step == 2) {
            m_check.Requesting();
            m_check.Requested(m_engine.GetDirectoryFromDevRequest());
        }
        if (step != 3) return;
        m_engine.CancelTransaction(DeviceSide::Name(m_input));
        m_engine.CreateDirectoryFromFile(m_engine.GetStatus("").GetXferFullFilePath());
    }

    bool Fetch(const std::string& name, int size) {
        m_check.Requesting();
        const KyTferStatusMsg record = m_engine.GetFileFromDevRequest(name, size);
        m_check.Requested(record);
        if (record.GetStatus() != KyTferStatusMsg::TFER_STATUS_INPROGRESS) return false;
        Require(record.GetXferFileName() == name &&
                    record.GetReqType() == KyTferStatusMsg::TFER_REQ_GET_FILE &&
                    record.GetBytesRequested() == static_cast<unsigned>(size),
                "an accepted fetch is the one that was asked for");
        return true;
    }

    /// While the request waits for its second, the device goes on.
    void Push() {
        const std::string name = DeviceSide::Name(m_input);
        const unsigned size = m_input.Byte();
        if (size < 200) std::ofstream(std::string(kOutgoing) + "/" + name) << std::string(size, 'y');
        m_check.PushRequested();
        SteppedTime::OnSleep([this, thread = std::this_thread::get_id()] {
            if (thread == std::this_thread::get_id()) m_side.Step(m_input.Byte());
        });
        m_engine.PutFileToDevRequest(kOutgoing, name);
        SteppedTime::OnSleep(nullptr);
        struct stat info = {};
        Require(size >= 200 || name.empty() ||
                    stat((std::string(kOutgoing) + "/" + name).c_str(), &info) != 0 ||
                    !S_ISREG(info.st_mode) || name.find("..") != std::string::npos,
                "a file to push is consumed");
    }

    /// Every transaction ends, and then the next one is accepted; so does that.
    void EndTransactions() {
        m_device.FailPoints(0, false);
        m_device.SetTransfer({});
        m_device.Release();
        Require(fuzz::WaitUntil([&] { return !m_engine.WorkerRunning(); }),
                "workers end with their transfers");
        unlink((std::string(FuzzDevice::kLanding) + "never there").c_str());
        const auto accepted = [&] {
            SteppedTime::Advance(kLongEnough);
            m_check.Check();
            return Fetch("never there", 7);
        };
        Require(fuzz::WaitUntil(accepted), "every transaction ends, and the next one is accepted");
        const auto failed = [&] {
            SteppedTime::Advance(kLongEnough);
            const KyTferStatusMsg record = m_check.Check();
            return record.GetStatus() == KyTferStatusMsg::TFER_STATUS_FAIL &&
                   record.GetStatusMsg() == "File transfer Failed - timeout";
        };
        Require(fuzz::WaitUntil(failed), "a fetch that nobody answers fails by time");
    }

    void Stop() {
        m_device.Abort();
        m_engine.Stop();
        m_stopped = true;
        Require(m_engine.GetFileFromDevRequest("f", 1).GetStatus() == KyTferStatusMsg::TFER_STATUS_FAIL,
                "a stopped engine refuses");
        m_device.ExpectNoCall();
    }

    fuzz::Input& m_input;
    FuzzDevice m_device;
    KyTferClient m_engine;
    RecordCheck m_check{m_engine};
    DeviceSide m_side{m_input, m_device, m_engine, m_check};
    bool m_stopped = false;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::RequireSandbox();
    fuzz::SilenceLog();
    std::filesystem::create_directories("/var/tmp/dmp");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fuzz::LeakCheck leaks;
    fuzz::Input input(data, size);
    Conversation(input).Run();
    leaks.Check();
    SteppedTime::Reset();
    std::filesystem::remove_all("/var/local/tal");
    return 0;
}
