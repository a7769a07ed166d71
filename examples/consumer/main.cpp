// Fetches one file with kytfer. The device is a proxy that holds the file in memory. On a card, the card's own
// KyPldProxy replaces it, and the platform reports the changes of the device's points.
//
// The program must be allowed to write to /var/local and /var/tmp, where the library has its directories.
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
constexpr unsigned short kRequestPoint = 8602;  // carries the card's requests and the device's answers

/// The proxy of the device. The engine calls it from several threads.
class MemoryDevice : public KyPldProxy {
public:
    explicit MemoryDevice(std::string content) : m_content(std::move(content)) {}

    /// Returns the answers since the last call. Each is a point change for the engine.
    std::vector<std::string> TakeAnswers() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_answers, {});
    }

    // Every module index has the card's MAC, so the engine finds the card's place.
    int GetMaiString(std::string& value, unsigned short, unsigned short, unsigned short, unsigned short,
                     unsigned short, short, unsigned int) override {
        value = tal_netutils::KyNetUtils::GetMAC();
        return 0;
    }

    // The number points are versions and limits. With 1 for each, the engine chooses the Sorrel 485 transport.
    int GetMaiUint32(unsigned int& value, unsigned short, unsigned short, unsigned short, unsigned short,
                     unsigned short, short) override {
        return One(value);
    }

    // A file name on the request point requests that file. This device answers at once.
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

/// Reports a new value of the request point to the engine: text in 16-bit units, one for each character.
void Report(KyTferClient& engine, const std::string& answer) {
    const std::vector<unsigned short> units(answer.begin(), answer.end());
    engine.DataChange({kRequestPoint, 1, static_cast<unsigned short>(units.size()), units.data()});
}

}  // namespace

int main() {
    const std::string content(20480, 'x');
    MemoryDevice device(content);
    KyTferClient engine;
    // Blocks for eight seconds: the module search needs four equal answers.
    if (engine.Init(kDevice, &device) != 0) return 1;

    // The engine has its own threads. This thread reports the device's answers and reads the status record.
    KyTferStatusMsg status = engine.GetFileFromDevRequest("event.log", static_cast<int>(content.size()));
    bool working = status.GetStatus() == KyTferStatusMsg::TFER_STATUS_INPROGRESS;
    while (working) {
        for (const std::string& answer : device.TakeAnswers())
            Report(engine, answer);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        // The record can be complete before the worker has moved the file to the download directory.
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
