#include "ServiceTest.h"

#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "messages/KyTferCancelTransMsg.h"
#include "messages/KyTferRespMsg.h"
#include "service/TferService.h"

namespace fs = std::filesystem;

namespace {

/// What a reply says; it is deleted.
std::string Told(KyTferMsg* message) {
    const std::unique_ptr<KyTferMsg> reply(message);
    const auto* const response = dynamic_cast<const KyTferRespMsg*>(reply.get());
    if (response == nullptr) return reply ? "not a response" : "null";
    const int result = response->GetResultStatus();
    const std::string word = result == TferService::kAccepted  ? "accepted"
                             : result == TferService::kRefused ? "refused"
                                                               : std::to_string(result);
    return word + ": " + response->GetResultMsg();
}

}  // namespace

ServiceTest::ServiceTest() {
    fs::create_directory(m_files);
    setenv("KY_IPC_DIR", m_fifos.c_str(), 1);
}

ServiceTest::~ServiceTest() {
    if (m_service) {
        ExpectNoDescriptorLost();
        EXPECT_EQ(Stop(SIGTERM), 0);
    }
    EXPECT_EQ(Entries(), std::set<std::string>{"tfersvc.lock"});
    EXPECT_EQ(OpenDescriptors(), m_ownDescriptors);
    const std::string log = ReadFile(m_log);
    constexpr size_t end = 5000;
    if (HasFailure()) std::cerr << log.substr(std::max(log.size(), end) - end);
    fs::remove_all("/var/local/tal");
    unsetenv("KY_IPC_DIR");
}

void ServiceTest::Run(const std::vector<std::string>& arguments, ServiceProcess::Sleeps sleeps) {
    m_service.reset();
    WriteFile(m_log, "");
    std::vector<std::string> all = {"--simulate", m_files};
    all.insert(all.end(), arguments.begin(), arguments.end());
    m_service = std::make_unique<ServiceProcess>(m_log, all, sleeps);
}

void ServiceTest::Launch(const std::vector<std::string>& arguments, ServiceProcess::Sleeps sleeps) {
    Run(arguments, sleeps);
    const auto answers = [&] { return std::unique_ptr<KyTferMsg>(m_client.GetStatus()) != nullptr; };
    ASSERT_TRUE(WaitUntil(answers, kDeadline));
}

// It says that it is ready just before it is. Until then there must be no request that could change the
// count.
void ServiceTest::Start(const std::vector<std::string>& arguments) {
    Run(arguments, ServiceProcess::SHORT);
    ASSERT_TRUE(AwaitLogged("the engine is ready"));
    m_idleDescriptors = m_service->Descriptors();
    ASSERT_TRUE(WaitUntil([&] { return Status().GetStatus() == Record::TFER_STATUS_NONE; }, kDeadline));
}

int ServiceTest::Stop(int signal, std::chrono::seconds deadline) {
    m_service->Signal(signal);
    const int status = m_service->Wait(deadline);
    m_service.reset();
    return status;
}

void ServiceTest::ExpectNoDescriptorLost() const {
    WaitUntil([&] { return m_service->Descriptors() == m_idleDescriptors; }, kDeadline);
    ASSERT_EQ(m_service->Descriptors(), m_idleDescriptors);
}

std::string ServiceTest::Put(const std::string& name, size_t size) const {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i * 31 + i / 256 + name.size());
    WriteFile(m_files + name, bytes);
    return bytes;
}

std::string ServiceTest::Fetch(const std::string& name, size_t size) {
    return Told(m_client.GetDevFile(name, "", static_cast<unsigned int>(size)));
}

std::string ServiceTest::Push(const std::string& path) {
    return Told(m_client.PutDevFile(path));
}

std::string ServiceTest::Directory() {
    return Told(m_client.GetDevDirectory());
}

std::string ServiceTest::Cancel(const std::string& transaction) {
    auto request = std::make_unique<KyTferCancelTransMsg>(512);
    request->SetTransId(transaction);
    return Told(m_client.DoRequest(request.release()));
}

Record ServiceTest::Status() {
    const std::unique_ptr<KyTferMsg> reply(m_client.GetStatus());
    const auto* const record = dynamic_cast<const Record*>(reply.get());
    EXPECT_NE(record, nullptr) << "no answer to a status request";
    return record == nullptr ? Record(512) : *record;
}

Record ServiceTest::AwaitComplete() {
    Record record(512);
    const auto complete = [&] {
        record = Status();
        return record.GetStatus() == Record::TFER_STATUS_COMPLETE ||
               record.GetStatus() == Record::TFER_STATUS_FAIL;
    };
    EXPECT_TRUE(WaitUntil(complete, kDeadline)) << record.GetStatusMsg();
    return record;
}

Record ServiceTest::AwaitEnd() {
    Record record(512);
    const auto ended = [&] {
        record = AwaitComplete();
        return record.GetFilePath() != kLanding || HasFailure();
    };
    EXPECT_TRUE(WaitUntil(ended, kDeadline)) << record.GetStatusMsg();
    return record;
}

bool ServiceTest::AwaitLogged(const std::string& text) const {
    return WaitUntil([&] { return m_service->Logged(text) > 0; }, kDeadline);
}

std::set<std::string> ServiceTest::Entries() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(m_fifos))
        names.insert(entry.path().filename());
    return names;
}
