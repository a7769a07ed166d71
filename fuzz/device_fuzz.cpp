// A conversation of the engine with the simulated device and its callers, in stepped time. The input says what
// the callers request, how the device behaves, which calls of the proxy fail, and when time passes.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>

#include "engine/KyTferClient.h"
#include "fuzz/DeviceSide.h"
#include "fuzz/Fuzz.h"
#include "host/KyHostNet.h"
#include "support/SteppedTime.h"

using fuzz::Require;
using std::chrono::seconds;

namespace {

constexpr char kOutgoing[] = "/var/local/tal/up";
constexpr auto kLongEnough = seconds(181);  // longer than every time limit of a transaction

class Conversation {
public:
    explicit Conversation(fuzz::Input& input) : m_input(input) {}

    void Run() {
        std::filesystem::create_directories(kOutgoing);
        Init();
        while (!m_stopped && !m_input.Empty())
            Step();
        if (!m_stopped) EndTransactions();
        if (!m_stopped) Stop();
    }

private:
    void Init() {
        m_proxy.FailPoints(m_failing, m_throws);
        int sleeps = 0;
        std::thread stop;
        SteppedTime::OnSleep([&] {
            // A device that does not know the card makes the engine search for ever.
            if (++sleeps == 100) stop = std::thread([this] { m_engine.Stop(); });
        });
        m_engine.Init(3, &m_proxy);
        SteppedTime::OnSleep(nullptr);
        m_stopped = stop.joinable();
        if (m_stopped) stop.join();
        m_proxy.FailPoints(0, false);
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
            fuzz::WaitUntil([&] { return !m_engine.WorkerRunning() || m_device->HangingTransfers() > 0; });
        }
        m_side.Step(step);
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

    /// The device takes steps while the request sleeps.
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

    /// Every transaction ends, and the next fetch is accepted and ends, too.
    void EndTransactions() {
        m_side.ResetFaults();
        Require(fuzz::WaitUntil([&] { return !m_engine.WorkerRunning(); }),
                "workers end with their transfers");
        unlink((std::string(FuzzProxy::kLanding) + "never there").c_str());
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
        Require(fuzz::WaitUntil(failed), "a fetch without an answer times out");
    }

    void Stop() {
        m_device->Abort();
        m_engine.Stop();
        m_stopped = true;
        Require(m_engine.GetFileFromDevRequest("f", 1).GetStatus() == KyTferStatusMsg::TFER_STATUS_FAIL,
                "a stopped engine refuses");
        m_proxy.ExpectNoCall();
    }

    fuzz::Input& m_input;
    const unsigned m_search = m_input.Byte();
    const unsigned m_failing = m_input.Byte();
    const bool m_throws = m_input.Byte() % 2 == 1;
    const std::unique_ptr<SimDevice> m_device = DeviceSide::MakeDevice(m_search, m_input.Byte() % 4);
    FuzzProxy m_proxy{*m_device, [this] { m_check.Check(); }};
    KyTferClient m_engine;
    RecordCheck m_check{m_engine};
    DeviceSide m_side{m_input, *m_device, m_proxy, m_engine, m_check};
    bool m_stopped = false;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::RequireSandbox();
    fuzz::SilenceLog();
    ky_host::SetMAC("02:00:00:00:00:03");  // the machine's takes a system call for each read
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
