#include "engine/EngineFixture.h"

#include <dirent.h>

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

void EngineTest::SetUp() {
    fs::remove_all("/var/local/tal");
    fs::remove_all("/var/tmp/dmp");
    m_builder.Journal(true);
}

void EngineTest::TearDown() {
    if (device) device->Abort();
    if (device) device->SetListener(nullptr);
    engine.reset();
}

void EngineTest::Build() {
    engine.reset();
    proxy.reset();
    device.reset();
    // The kernel counts a joined thread for a moment longer; those of the engine before must not be counted
    // here.
    static const int s_bareThreads = ThreadCount();
    ASSERT_TRUE(WaitUntil([] { return ThreadCount() == s_bareThreads; }));
    device = m_builder.Build();
    ASSERT_TRUE(device);
    proxy = std::make_unique<GateProxy>(*device);
    engine = std::make_unique<KyTferClient>();
    m_threadsWithoutEngine = ThreadCount();
    device->SetListener([this](const KyValChgInfo& change) { engine->DataChange(change); });
}

void EngineTest::Start() {
    Build();
    ASSERT_EQ(engine->Init(3, proxy.get()), 0);
    ASSERT_TRUE(device->WaitIdle(10000));
    device->ClearCalls();
}

std::string EngineTest::PutOnDevice(const std::string& name, size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 2654435761U) >> 13);
    WriteFile(files / name, bytes);
    return bytes;
}

bool EngineTest::WaitForThreadNamed(const std::string& name) {
    return WaitUntil([&name] {
        for (const auto& task : fs::directory_iterator("/proc/self/task")) {
            std::ifstream in(task.path() / "comm");
            std::string line;
            if (std::getline(in, line) && line == name) return true;
        }
        return false;
    });
}

Status EngineTest::Request(const std::string& name, int size) {
    const int watching = log.Count(5, ") Diff(180)");
    const Status accepted = engine->GetFileFromDevRequest(name, size);
    EXPECT_TRUE(WaitUntil([&] { return log.Count(5, ") Diff(180)") > watching; }));
    return accepted;
}

bool EngineTest::WaitForThreads(int count) {
    return WaitUntil([&] { return ThreadCount() == m_threadsWithoutEngine + count; });
}

bool EngineTest::WaitUntilQuiet() {
    return WaitForThreads(0) && device->WaitIdle(10000);
}

bool EngineTest::WaitUntilEnded() {
    return WaitUntil([this] { return Record().GetStatus() != Status::TFER_STATUS_INPROGRESS; });
}

std::vector<std::string> EngineTest::Written() const {
    std::vector<std::string> written;
    for (const SimCall& call : device->Calls()) {
        if (call.operation == SimCallKind::SET_STRING || call.operation == SimCallKind::SET_UINT32) {
            written.push_back(std::to_string(call.pointId) + "=" + call.value);
        } else if (call.operation == SimCallKind::GET_FILE) {
            written.push_back("get " + call.value);
        } else if (call.operation == SimCallKind::PUT_FILE) {
            written.push_back("put " + call.value);
        }
    }
    return written;
}

void EngineTest::Change(unsigned short pointId, const std::string& text) {
    std::vector<unsigned short> units;
    for (const char c : text)
        units.push_back(static_cast<unsigned char>(c));
    engine->DataChange({pointId, 2, static_cast<unsigned short>(units.size()), units.data()});
}

std::string Outcome(const Status& record) {
    switch (record.GetStatus()) {
        case Status::TFER_STATUS_NONE:
            return "none";
        case Status::TFER_STATUS_COMPLETE:
            return "complete: " + record.GetStatusMsg();
        case Status::TFER_STATUS_INPROGRESS:
            return "in progress: " + record.GetStatusMsg();
        case Status::TFER_STATUS_FAIL:
            return "failed: " + record.GetStatusMsg();
        default:
            return "unknown";
    }
}
