#include "fuzz/FuzzProxy.h"

#include <stdexcept>

#include "fuzz/Fuzz.h"

using fuzz::Require;

namespace {

constexpr int kFailure = 7;
constexpr unsigned short kDeviceId = 3;

}  // namespace

void FuzzProxy::FailPoints(unsigned bits, bool throws) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_failing = bits & 0xFF;
    m_throws = throws;
}

void FuzzProxy::SetOutcome(Outcome outcome) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_outcome = outcome;
}

void FuzzProxy::ExpectNoCall() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_noCall = true;
}

int FuzzProxy::Before(const ProxyCall& call) {
    if (call.operation == ProxyOperation::SET_STRING && call.value == "SUCCESS") m_onSuccess();
    const std::lock_guard<std::mutex> lock(m_mutex);
    Require(!m_noCall, "a stopped engine does not call the proxy");
    Require(call.device == kDeviceId, "a call is for the device");
    if (call.operation == ProxyOperation::GET_FILE || call.operation == ProxyOperation::PUT_FILE) return 0;
    const bool fails = (m_failing & 1) != 0;
    m_failing >>= 1;
    if (fails && m_throws) throw std::runtime_error("proxy");
    return fails ? kFailure : 0;
}

template <typename Transfer>
bool FuzzProxy::End(Transfer transfer) {
    Outcome outcome;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        outcome = m_outcome;
    }
    const bool good = transfer();
    if (outcome == Outcome::EXCEPTION) throw std::runtime_error("transfer");
    return good && outcome == Outcome::DEVICE;
}

bool FuzzProxy::DoGetDevFile(unsigned short device, const std::string& option, const std::string& fileName) {
    Require(("/" + fileName + "/").find("/../") == std::string::npos, "a fetch stays in its directory");
    return End([&] { return RelayProxy::DoGetDevFile(device, option, fileName); });
}

bool FuzzProxy::DoPutDevFile(unsigned short device, const std::string& directory, const std::string& fileName,
                             const std::string& xferFileName) {
    Require(!xferFileName.empty(), "a pushed file has a name");
    return End([&] { return RelayProxy::DoPutDevFile(device, directory, fileName, xferFileName); });
}
