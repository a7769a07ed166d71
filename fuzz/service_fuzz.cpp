// The service's request loop: requests, damaged requests and garbage arrive on its control FIFO. The input also
// sets the faults of the simulated device.
#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <memory>

#include "fuzz/Caller.h"
#include "host/KyHostIpc.h"
#include "messages/KyTferStatusMsg.h"
#include "service/SimDeviceLink.h"
#include "service/TferService.h"
#include "support/SteppedTime.h"

using fuzz::FrameOf;
using fuzz::Message;
using fuzz::MessageIn;
using fuzz::Require;
using fuzz::Serialised;

namespace {

constexpr char kDevice[] = "/var/tmp/device";
constexpr unsigned short kDeviceId = 3;
constexpr size_t kFewRequests = 16;  // up to this number, none may stay without a reply

/// A caller's reply FIFO. All inputs use the same.
class ReplyFifo {
public:
    explicit ReplyFifo(const char* name) : m_name(name) {
        Require(m_session.OpenReadFifo(name, 0600) == KyIpcFifoSession::IPC_OK, "the reply FIFO is open");
    }

    /// Returns the next reply and counts it; null if there is none.
    Message Next(Counts& replies, int milliseconds) {
        KyIpcMsgBuffer buffer(0);
        if (m_session.Read(&buffer, milliseconds) != KyIpcFifoSession::IPC_OK) return nullptr;
        Message reply = MessageIn(fuzz::BytesOf(buffer));
        Require(reply && (reply->GetMsgType() == KyTferMsg::TFER_MSG_RESP ||
                          reply->GetMsgType() == KyTferMsg::TFER_MSG_STATUS),
                "a reply is a response or a status");
        ++replies[{m_name, reply->GetCallerContext()}];
        return reply;
    }

private:
    const std::string m_name;
    KyIpcFifoSession m_session{"fuzz", KyIpcFifoSession::IPC_CLOSE_NO_CONFIRM};
};

struct Replies {
    ReplyFifo r0{"r0"};
    ReplyFifo r1{"r1"};
};

class Session {
public:
    Session(fuzz::Input& input, Replies& fifos) : m_input(input), m_fifos(fifos) {
        const unsigned faults = m_input.Byte();
        auto device = SimDevice::Builder(kDevice)
                          .DeviceId(kDeviceId)
                          .Transport(faults % 16 == 15 ? SimDevice::USB_ONLY : SimDevice::SORREL_485)
                          .ManualDelivery(true)
                          .Build();
        for (const auto operation : {SimOperation::FETCH, SimOperation::PUSH, SimOperation::DIRECTORY})
            device->SetFault(operation, Fault(faults));
        m_link = std::make_unique<SimDeviceLink>(std::move(device));
        m_service = std::make_unique<TferService>(kDeviceId, *m_link);
        Require(m_service->Start(), "the service starts");
    }

    void Run() {
        Counts replies;
        const std::string control = ky_host::IpcDirectory() + "/tfersvc-CtrlFifo";
        const int fifo = open(control.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        while (!m_early && !IsReady(fifo, m_fifos.r0)) {
        }
        std::string stream = Caller(m_input).Stream();
        Send(fifo, stream);
        stream += AskForStatus(fifo, "last");
        while (replies.count({"r0", "last"}) == 0)
            Require(m_fifos.r0.Next(replies, 5000) != nullptr, "the loop answers after the stream");
        m_service->Stop();
        while (m_fifos.r0.Next(replies, 0) || m_fifos.r1.Next(replies, 0)) {
        }
        close(fifo);
        Compare(replies, stream);
    }

private:
    SimFault Fault(unsigned faults) {
        SimFault fault;
        if (faults % 4 == 1) fault.answer = static_cast<SimAnswer>(m_input.Byte() % 4);
        if (faults % 4 == 2) fault.sizeDelta = static_cast<int>(m_input.Byte() % 8) - 4;
        fault.noFile = faults / 16 % 4 == 1;
        fault.refuse = faults / 16 % 4 == 2;
        fault.stuck = faults / 16 % 4 == 3 && m_input.Byte() % 4 == 0;
        m_early = faults >= 0xF0;  // requests arrive during the module search
        return fault;
    }

    static void Send(int fifo, const std::string& bytes) {
        Require(write(fifo, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
                "the FIFO has room");
    }

    static std::string AskForStatus(int fifo, const char* context) {
        KyTferStatusMsg request(0);
        request.SetRespFifo("r0");
        request.SetCallerContext(context);
        std::string frame = FrameOf(Serialised(request));
        Send(fifo, frame);
        return frame;
    }

    static bool IsReady(int fifo, ReplyFifo& replyFifo) {
        Counts ignored;
        AskForStatus(fifo, "first");
        const Message reply = replyFifo.Next(ignored, 5000);
        Require(reply != nullptr, "the loop answers");
        return dynamic_cast<KyTferStatusMsg&>(*reply).GetStatus() != KyTferStatusMsg::TFER_STATUS_FAIL;
    }

    static void Compare(const Counts& replies, const std::string& stream) {
        size_t requests = 0;
        const Counts due = Caller::DueReplies(stream, requests);
        for (const auto& reply : replies) {
            const auto asked = due.find(reply.first);
            Require(asked != due.end() && reply.second <= asked->second, "a request has one reply at most");
        }
        Require(requests > kFewRequests || replies == due, "every request has a reply");
    }

    fuzz::Input& m_input;
    Replies& m_fifos;
    std::unique_ptr<DeviceLink> m_link;
    std::unique_ptr<TferService> m_service;
    bool m_early = false;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::RequireSandbox();
    fuzz::SilenceLog();
    setenv("KY_IPC_DIR", "/var/tmp/ipc", 1);
    std::filesystem::create_directories(kDevice);
    std::ofstream(std::string(kDevice) + "/f") << "0123456789";
    std::ofstream(std::string(kDevice) + "/empty") << "";
    return ky_host::CreateIpcDirectory();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Replies& s_replies = *new Replies;
    const fuzz::LeakCheck leaks;
    std::filesystem::create_directories(Caller::kOutgoing);
    fuzz::Input input(data, size);
    Session(input, s_replies).Run();
    leaks.Check();
    SteppedTime::Reset();
    std::filesystem::remove_all("/var/local/tal");
    return 0;
}
