// KyPldProxy, with the device of the setup.
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "platform/KyNetUtils.h"
#include "platform/KyPldProxy.h"
#include "platformcheck/PlatformTest.h"

using namespace ky_platform_check;

namespace {

constexpr unsigned int kStringTimeout = 1000;  // the engine's
constexpr int kSlowFetch = 100;                // ms; in a faster fetch, the test may miss the growth

const Device& TheDevice() {
    static const Device s_device = TheSetup().connect ? TheSetup().connect() : Device();
    return s_device;
}

unsigned short Id(int point) {
    return static_cast<unsigned short>(point);
}

/// The proxy of the device; points are addressed as the engine does it.
class Proxy : public PlatformTest {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        if (m_device.proxy == nullptr) GTEST_SKIP() << "the setup has no device";
    }

    int Number(unsigned int& value, int point) const {
        return m_device.proxy->GetMaiUint32(value, m_device.id, Id(point), m_device.mmIdx, 0, 0, 0);
    }
    int Text(std::string& value, int point, unsigned short mmIdx) const {
        return m_device.proxy->GetMaiString(value, m_device.id, Id(point), mmIdx, 0, 0, 0, 0);
    }
    int Text(std::string& value, int point) const { return Text(value, point, m_device.mmIdx); }
    int SetText(const char* value, int point) const {
        return m_device.proxy->SetMaiString(value, m_device.id, Id(point), m_device.mmIdx, 0, 0, 0, 0,
                                            kStringTimeout);
    }

    /// Fetches the file of the setup to `m_path`.
    bool Fetch() const { return m_device.proxy->GetDevFile(m_device.id, "", m_device.fileName); }

    void TearDown() override {
        if (!m_device.fileName.empty()) std::remove(m_path.c_str());
        PlatformTest::TearDown();
    }

    const Device& m_device = TheDevice();
    const std::string m_path = m_device.landingDirectory + m_device.fileName;
};

TEST_F(Proxy, ReadsTheSameNumberTwice) {
    if (m_device.number < 0) GTEST_SKIP() << "the setup has no number point";
    unsigned int first = 1;
    unsigned int second = 2;
    EXPECT_EQ(Number(first, m_device.number), 0);
    EXPECT_EQ(Number(second, m_device.number), 0);
    EXPECT_EQ(first, second);
}

TEST_F(Proxy, WritesAStringAndReadsItBack) {
    if (m_device.text < 0) GTEST_SKIP() << "the setup has no string point";
    std::string before;
    EXPECT_EQ(Text(before, m_device.text), 0);
    for (const char* const text : {"ky check", ""}) {
        char value[16];
        std::snprintf(value, sizeof value, "%s", text);
        EXPECT_EQ(SetText(value, m_device.text), 0);
        std::memset(value, '?', sizeof value - 1);  // the proxy must not keep the pointer
        std::string seen = "old";
        EXPECT_EQ(Text(seen, m_device.text), 0);
        EXPECT_EQ(seen, text);
    }
    EXPECT_EQ(SetText(before.c_str(), m_device.text), 0) << "when the old value is restored";
}

TEST_F(Proxy, FailsForAPointThatDoesNotExist) {
    if (m_device.absent < 0) GTEST_SKIP() << "the setup has no absent point";
    unsigned int number = 0;
    std::string text;
    EXPECT_NE(Number(number, m_device.absent), 0);
    EXPECT_NE(Text(text, m_device.absent), 0);
    EXPECT_NE(SetText("x", m_device.absent), 0);
}

// The engine's Init does the same, and repeats it for ever if it fails.
TEST_F(Proxy, FindsTheCardsMac) {
    if (m_device.agentInfo < 0) GTEST_SKIP() << "the setup has no MonAgentInfo point";
    unsigned int report = 0;
    unsigned int count = 0;
    EXPECT_EQ(m_device.proxy->GetPointReportId(report, m_device.id, Id(m_device.agentInfo)), 0);
    EXPECT_EQ(m_device.proxy->GetMaxModuleCount(count, m_device.id, static_cast<unsigned short>(report)), 0);
    std::vector<std::string> texts;
    for (unsigned int mmIdx = 1; mmIdx <= count; ++mmIdx) {
        std::string text;
        if (Text(text, m_device.agentInfo, static_cast<unsigned short>(mmIdx)) == 0) texts.push_back(text);
    }
    EXPECT_NE(std::count(texts.begin(), texts.end(), tal_netutils::KyNetUtils::GetMAC()), 0)
        << "GetMAC() returns " << tal_netutils::KyNetUtils::GetMAC() << ", the points hold "
        << testing::PrintToString(texts);
}

TEST_F(Proxy, SeveralThreadsReadAtOnce) {
    if (m_device.number < 0) GTEST_SKIP() << "the setup has no number point";
    unsigned int expected = 0;
    EXPECT_EQ(Number(expected, m_device.number), 0);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            for (int i = 0; i < 10; ++i) {
                unsigned int value = ~expected;
                EXPECT_EQ(Number(value, m_device.number), 0);
                EXPECT_EQ(value, expected);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

/// Watches the size of a file until Stop.
class SizeWatcher {
public:
    explicit SizeWatcher(std::string path) : m_path(std::move(path)), m_thread([this] { Watch(); }) {}
    SizeWatcher(const SizeWatcher&) = delete;
    SizeWatcher& operator=(const SizeWatcher&) = delete;
    ~SizeWatcher() { Stop(); }

    void Stop() {
        m_stop = true;
        if (m_thread.joinable()) m_thread.join();
    }

    // Valid after Stop().
    int sizes = 0;        ///< number of different sizes seen
    bool shrunk = false;  ///< a size was smaller than the one before
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

TEST_F(Proxy, FetchedFileIsCompleteAtReturn) {
    if (m_device.fileName.empty()) GTEST_SKIP() << "the setup has no file";
    std::remove(m_path.c_str());
    EXPECT_TRUE(Fetch());
    EXPECT_TRUE(Same(m_device.fileBytes, FileBytes(m_path)));
}

TEST_F(Proxy, FetchedFileGrowsInItsPlace) {
    if (m_device.fileName.empty()) GTEST_SKIP() << "the setup has no file";
    std::remove(m_path.c_str());
    SizeWatcher watcher(m_path);
    const long long start = Now();
    Fetch();
    const long long took = Now() - start;
    watcher.Stop();
    EXPECT_FALSE(watcher.shrunk);
    EXPECT_LE(watcher.largest, static_cast<off_t>(m_device.fileBytes.size()));
    if (took < kSlowFetch) GTEST_SKIP() << "the fetch took only " << took << " ms; use a larger file";
    EXPECT_GT(watcher.sizes, 2) << "sizes seen during the fetch";
}

// The engine reads and writes points during a fetch.
TEST_F(Proxy, PointsAreReadDuringAFetch) {
    if (m_device.fileName.empty() || m_device.number < 0)
        GTEST_SKIP() << "the setup lacks file or number point";
    std::atomic<bool> fetched{false};
    std::thread fetch([&] {
        Fetch();
        fetched = true;
    });
    int status = 0;
    do {
        unsigned int value = 0;
        status = Number(value, m_device.number);
        Pause(1);
    } while (!fetched && status == 0);
    fetch.join();
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(Same(m_device.fileBytes, FileBytes(m_path)));
}

TEST_F(Proxy, PushesAWholeFileAndFailsForAMissingOne) {
    if (m_device.pushName.empty()) GTEST_SKIP() << "the setup has no name for a push";
    const std::string bytes = Noise(5000, 8);
    WriteFileBytes(m_directory + "/to-push", bytes);
    const std::string directory = m_directory + "/";
    EXPECT_TRUE(m_device.proxy->PutDevFile(m_device.id, directory, "to-push", m_device.pushName));
    EXPECT_TRUE(!m_device.received || m_device.received(m_device.pushName, bytes));
    EXPECT_FALSE(m_device.proxy->PutDevFile(m_device.id, directory, "missing", m_device.pushName));
}

}  // namespace
