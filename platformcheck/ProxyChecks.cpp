#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <thread>

#include "platform/KyNetUtils.h"
#include "platform/KyPldProxy.h"
#include "platformcheck/Check.h"

using namespace ky_platform_check;

namespace {

constexpr unsigned int STRING_TIMEOUT = 1000;  // as the engine passes them
constexpr int SLOW_FETCH = 100;                // ms; a file that comes faster may not be seen growing

/// The device's points, addressed as the engine does it.
class Points {
public:
    explicit Points(const Device& device) : m_device(device) {}

    int Number(unsigned int& value, int point) const {
        return m_device.proxy->GetMaiUint32(value, m_device.id, Id(point), m_device.mmIdx, 0, 0, 0);
    }
    int Text(std::string& value, int point) const { return TextAt(value, point, m_device.mmIdx); }
    int TextAt(std::string& value, int point, unsigned int mmIdx) const {
        return m_device.proxy->GetMaiString(value, m_device.id, Id(point), Id(static_cast<int>(mmIdx)), 0, 0,
                                            0, 0);
    }
    int SetText(const char* value, int point) const {
        return m_device.proxy->SetMaiString(value, m_device.id, Id(point), m_device.mmIdx, 0, 0, 0, 0,
                                            STRING_TIMEOUT);
    }

private:
    static unsigned short Id(int point) { return static_cast<unsigned short>(point); }

    const Device& m_device;
};

bool Has(Judge& judge, bool given) {
    if (!given) judge.Skip("not described");
    return given;
}

void ReadsNumber(Judge& judge, const Bench& bench) {
    if (!Has(judge, bench.device.number >= 0)) return;
    const Points points(bench.device);
    unsigned int first = 1;
    unsigned int second = 2;
    judge.Equal("status", 0, points.Number(first, bench.device.number));
    judge.Equal("status of the second read", 0, points.Number(second, bench.device.number));
    judge.Equal("the second value", first, second);
}

void WritesText(Judge& judge, const Bench& bench) {
    const int point = bench.device.text;
    if (!Has(judge, point >= 0)) return;
    const Points points(bench.device);
    std::string before;
    judge.Equal("status of the first read", 0, points.Text(before, point));
    for (const char* const text : {"ky check", ""}) {
        char value[16];
        std::snprintf(value, sizeof value, "%s", text);
        judge.Equal("status of the write", 0, points.SetText(value, point));
        std::memset(value, '?', sizeof value - 1);  // the proxy keeps none of it
        std::string seen = "old";
        judge.Equal("status of the read", 0, points.Text(seen, point));
        judge.Equal("what has been written", text, seen);
    }
    judge.Equal("status of putting back the old value", 0, points.SetText(before.c_str(), point));
}

void FailsWithoutPoint(Judge& judge, const Bench& bench) {
    if (!Has(judge, bench.device.absent >= 0)) return;
    const Points points(bench.device);
    unsigned int number = 0;
    std::string text;
    judge.Expect(points.Number(number, bench.device.absent) != 0, "a number is read from no point");
    judge.Expect(points.Text(text, bench.device.absent) != 0, "a text is read from no point");
    judge.Expect(points.SetText("x", bench.device.absent) != 0, "a text is written to no point");
}

/// What the engine does to find its place; it would search for ever if this failed.
void FindsCard(Judge& judge, const Bench& bench) {
    const Device& device = bench.device;
    if (!Has(judge, device.agentInfo >= 0)) return;
    unsigned int report = 0;
    unsigned int count = 0;
    judge.Equal(
        "status of GetPointReportId()", 0,
        device.proxy->GetPointReportId(report, device.id, static_cast<unsigned short>(device.agentInfo)));
    judge.Equal("status of GetMaxModuleCount()", 0,
                device.proxy->GetMaxModuleCount(count, device.id, static_cast<unsigned short>(report)));
    const std::string mac = tal_netutils::KyNetUtils::GetMAC();
    std::string texts;
    for (unsigned int mmIdx = 1; mmIdx <= count; ++mmIdx) {
        std::string text;
        if (Points(device).TextAt(text, device.agentInfo, mmIdx) == 0 && text == mac) return;
        texts += " \"" + text + "\"";
    }
    judge.Expect(false, "\"" + mac + "\" stands at none of " + std::to_string(count) + " indexes:" + texts);
}

void SeveralThreads(Judge& judge, const Bench& bench) {
    if (!Has(judge, bench.device.number >= 0)) return;
    constexpr int THREADS = 4;
    const Points points(bench.device);
    unsigned int expected = 0;
    judge.Equal("status", 0, points.Number(expected, bench.device.number));
    std::array<int, THREADS> wrong = {};
    std::vector<std::thread> threads;
    for (int& count : wrong) {
        threads.emplace_back([&] {
            for (int i = 0; i < 10; ++i) {
                unsigned int value = ~expected;
                if (points.Number(value, bench.device.number) != 0 || value != expected) ++count;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (const int count : wrong)
        judge.Equal("wrong reads of a thread", 0, count);
}

/// Watches the size of a file until it is told to stop.
class Watcher {
public:
    explicit Watcher(std::string path) : m_path(std::move(path)), m_thread([this] { Watch(); }) {}
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;
    ~Watcher() { Stop(); }

    void Stop() {
        m_stop = true;
        if (m_thread.joinable()) m_thread.join();
    }

    // To be looked at after Stop().
    int sizes = 0;        ///< how many different sizes it has had
    bool shrunk = false;  ///< it has been shorter than before
    off_t largest = -1;

private:
    void Watch() {
        for (; !m_stop; Pause(1)) {
            struct stat found;
            if (stat(m_path.c_str(), &found) != 0) continue;
            sizes += found.st_size > largest ? 1 : 0;
            shrunk |= found.st_size < largest;
            largest = std::max(largest, found.st_size);
        }
    }

    const std::string m_path;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

void FetchesFile(Judge& judge, const Bench& bench) {
    const Device& device = bench.device;
    if (!Has(judge, !device.fileName.empty())) return;
    const std::string path = device.landingDirectory + device.fileName;
    std::remove(path.c_str());
    judge.Expect(device.proxy->GetDevFile(device.id, "", device.fileName), "GetDevFile() returns false");
    judge.Equal("the file in the landing directory, at the call's return", device.fileBytes, FileBytes(path));
    std::remove(path.c_str());
}

void FileGrows(Judge& judge, const Bench& bench) {
    const Device& device = bench.device;
    if (!Has(judge, !device.fileName.empty())) return;
    const std::string path = device.landingDirectory + device.fileName;
    std::remove(path.c_str());
    Watcher watcher(path);
    const long long start = Now();
    device.proxy->GetDevFile(device.id, "", device.fileName);
    const long long took = Now() - start;
    watcher.Stop();
    std::remove(path.c_str());
    judge.Expect(!watcher.shrunk, "it has become shorter on the way");
    judge.Expect(watcher.largest <= static_cast<off_t>(device.fileBytes.size()), "it was longer than it is");
    if (took < SLOW_FETCH)
        return judge.Skip("it came within " + std::to_string(took) + " ms; take a larger one");
    judge.Expect(watcher.sizes > 2, "it was seen in " + std::to_string(watcher.sizes) + " sizes on the way");
}

/// The engine reads and writes points while a file is under way.
void PointsDuringFetch(Judge& judge, const Bench& bench) {
    const Device& device = bench.device;
    if (!Has(judge, !device.fileName.empty() && device.number >= 0)) return;
    const std::string path = device.landingDirectory + device.fileName;
    std::atomic<bool> fetched{false};
    std::thread fetch([&] {
        device.proxy->GetDevFile(device.id, "", device.fileName);
        fetched = true;
    });
    do {
        unsigned int value = 0;
        if (!judge.Equal("status of a read", 0, Points(device).Number(value, device.number))) break;
        Pause(1);
    } while (!fetched);
    fetch.join();
    judge.Equal("the file", device.fileBytes, FileBytes(path));
    std::remove(path.c_str());
}

void PushesFile(Judge& judge, const Bench& bench) {
    const Device& device = bench.device;
    if (!Has(judge, !device.pushName.empty())) return;
    const std::string bytes = Noise(5000, 8);
    WriteFileBytes(bench.directory + "/to-push", bytes);
    const std::string directory = bench.directory + "/";
    judge.Expect(device.proxy->PutDevFile(device.id, directory, "to-push", device.pushName),
                 "PutDevFile() returns false");
    if (device.received)
        judge.Expect(device.received(device.pushName, bytes), "the device does not hold what was pushed");
    judge.Expect(!device.proxy->PutDevFile(device.id, directory, "missing", device.pushName),
                 "PutDevFile() of no file returns true");
}

}  // namespace

Checks ky_platform_check::ProxyChecks() {
    return {{"proxy: a number is read, twice the same", ReadsNumber},
            {"proxy: a string is written and read back, and not kept", WritesText},
            {"proxy: a point that is not there is a status", FailsWithoutPoint},
            {"proxy: the card's MAC stands at one of the MonAgentInfo indexes", FindsCard},
            {"proxy: several threads read at once", SeveralThreads},
            {"proxy: a fetched file is complete at the call's return, under its name", FetchesFile},
            {"proxy: a fetched file grows in its place", FileGrows},
            {"proxy: points are read while a file is fetched", PointsDuringFetch},
            {"proxy: a file is pushed whole, and a missing one is not", PushesFile}};
}
