#include "engine/EngineFixture.h"

#include <algorithm>
#include <map>

void EngineTest::SetUp() {
    fs::remove_all("/var/tmp/dmp");
    fs::create_directories("/var/tmp/dmp");
}

void EngineTest::TearDown() {
    if (device) device->Abort();
    if (device) device->SetListener(nullptr);
    engine.reset();
}

void EngineTest::Build() {
    TearDown();
    device.reset();
    log.emplace();
    fs::remove_all("/var/local/tal");
    device = m_builder.Build();
    ASSERT_TRUE(device);
    proxy.emplace(*device);
    engine = std::make_unique<KyTferClient>();
    device->SetListener([this](const KyValChgInfo& change) { engine->DataChange(change); });
}

void EngineTest::Start(size_t size) {
    bytes.resize(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 2654435761U) >> 13);
    WriteFile(files / "f", bytes);
    Build();
    ASSERT_EQ(engine->Init(3, &*proxy), 0);
    ASSERT_TRUE(device->WaitIdle(10000));
    proxy->Clear();
}

bool EngineTest::WaitForWorker() {
    return WaitUntil([this] { return !engine->WorkerRunning(); }) && device->WaitIdle(10000);
}

bool EngineTest::WaitForOutcome(const std::string& outcome) {
    return WaitUntil([&] { return Outcome(Record()) == outcome; }) && WaitForWorker();
}

Strings EngineTest::Written() const {
    Strings written = proxy->Calls();
    const auto isRead = [](const std::string& call) { return call.find_first_of("= ") == std::string::npos; };
    written.erase(std::remove_if(written.begin(), written.end(), isRead), written.end());
    return written;
}

Strings EngineTest::WrittenAfterRequest(size_t count) {
    EXPECT_TRUE(WaitUntil([&] { return Written().size() >= 2 + count; }) && WaitForWorker());
    Strings written = Written();
    written.erase(written.begin(), written.begin() + 2);
    return written;
}

Strings EngineTest::Errors() const {
    Strings errors;
    for (const LogCapture::Line& line : log->Lines()) {
        if (line.level == 3) errors.push_back(line.text);
    }
    return errors;
}

std::string Outcome(const Status& record) {
    static const std::map<int, std::string> kWords = {{Status::TFER_STATUS_NONE, "none: "},
                                                      {Status::TFER_STATUS_COMPLETE, "complete: "},
                                                      {Status::TFER_STATUS_INPROGRESS, "in progress: "},
                                                      {Status::TFER_STATUS_FAIL, "failed: "}};
    return kWords.at(record.GetStatus()) + record.GetStatusMsg();
}

std::string Fetched(const std::string& name) {
    return "complete: Retrieved file(" + name +
           ") successfully. and placed it in (/var/local/tal/pldserver/3/" + name + ")";
}

SimFault Fault(void (*set)(SimFault&)) {
    SimFault fault;
    set(fault);
    return fault;
}
