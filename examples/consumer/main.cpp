// Fetches one file with kytfer. The managed device is played by a proxy with the file in memory; on a card
// the card's own KyPldProxy takes its place, and the platform reports the changes of the device's points.
//
// Needs the right to write to /var/local and /var/tmp, where the library has its directories.
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "engine/KyTferClient.h"
#include "platform/KyNetUtils.h"
#include "platform/KyPldProxy.h"

namespace {

constexpr unsigned short kDevice = 3;
constexpr unsigned short kRequestPoint = 8602;  // the card writes what it wants, the device answers

/// The way to the device. The engine calls it from several threads.
class MemoryDevice : public KyPldProxy {
public:
    explicit MemoryDevice(std::string content) : m_content(std::move(content)) {}

    /// The answers given since the last call, to be handed to the engine as point changes.
    std::vector<std::string> TakeAnswers() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_answers, {});
    }

    // Who sits at a module index: the engine looks for the card's own address there.
    int GetMaiString(std::string& value, unsigned short, unsigned short, unsigned short, unsigned short,
                     unsigned short, short, unsigned int) override {
        value = tal_netutils::KyNetUtils::GetMAC();
        return 0;
    }

    // The numbers are versions and limits; a device that says 1 to all of them agrees on the first transport.
    int GetMaiUint32(unsigned int& value, unsigned short, unsigned short, unsigned short, unsigned short,
                     unsigned short, short) override {
        return One(value);
    }

    // A file's name on the request point asks for that file. Ours is ready at once.
    int SetMaiString(const char* value, unsigned short, unsigned short pointId, unsigned short,
                     unsigned short, unsigned short, short, unsigned int, unsigned int) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (pointId == kRequestPoint && std::string(value) == "event.log") m_answers.emplace_back("READY");
        return 0;
    }

    int SetMaiUint32(unsigned int, unsigned short, unsigned short, unsigned short, unsigned short,
                     unsigned short, short, unsigned int) override {
        return 0;
    }
    int GetMaxModuleCount(unsigned int& count, unsigned short, unsigned short) override { return One(count); }
    int GetPointReportId(unsigned int& id, unsigned short, unsigned short) override { return One(id); }

private:
    static int One(unsigned int& value) {
        value = 1;
        return 0;
    }
    bool DoGetDevFile(unsigned short, const std::string&, const std::string& fileName) override {
        std::ofstream file(KyTferClient::GetCardReceiveFileDirectory() + fileName, std::ios::binary);
        return static_cast<bool>(file << m_content << std::flush);
    }
    bool DoPutDevFile(unsigned short, const std::string&, const std::string&, const std::string&) override {
        return false;
    }

    const std::string m_content;
    std::mutex m_mutex;
    std::vector<std::string> m_answers;
};

/// Tells the engine that the request point has a new value: text as 16-bit units, one for each character.
void Report(KyTferClient& engine, const std::string& answer) {
    const std::vector<unsigned short> units(answer.begin(), answer.end());
    engine.DataChange({kRequestPoint, 1, static_cast<unsigned short>(units.size()), units.data()});
}

}  // namespace

int main() {
    const std::string content(20480, 'x');
    MemoryDevice device(content);
    KyTferClient engine;
    // Blocks for eight seconds: a card takes a place in the device only after four equal answers.
    if (engine.Init(kDevice, &device) != 0) return 1;

    // The engine works on threads of its own; this one hands it the device's answers, and watches the record.
    KyTferStatusMsg status = engine.GetFileFromDevRequest("event.log", static_cast<int>(content.size()));
    bool working = status.GetStatus() == KyTferStatusMsg::TFER_STATUS_INPROGRESS;
    while (working) {
        for (const std::string& answer : device.TakeAnswers())
            Report(engine, answer);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        // The record may be complete when the file has arrived, before the worker has moved it to its place.
        working = engine.WorkerRunning();
        status = engine.GetStatus("");
        working = working || status.GetStatus() == KyTferStatusMsg::TFER_STATUS_INPROGRESS;
    }
    engine.Stop();
    std::printf("%s\n", status.GetJsonStatus().c_str());

    std::ifstream file(status.GetXferFullFilePath(), std::ios::binary);
    const std::string fetched{std::istreambuf_iterator<char>(file), {}};
    const bool equal = status.GetStatus() == KyTferStatusMsg::TFER_STATUS_COMPLETE && fetched == content;
    std::printf("%s: %zu bytes, %u%%, %s\n", status.GetXferFullFilePath().c_str(), fetched.size(),
                status.GetPercentComplete(), equal ? "as on the device" : "NOT as on the device");
    return equal ? 0 : 1;
}
