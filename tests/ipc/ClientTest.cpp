#include "client/TferSvcMsgClient.h"

#include <filesystem>
#include <memory>

#include "IpcTest.h"
#include "messages/KyTferMsgFactory.h"
#include "messages/KyTferPutDevFile.h"
#include "messages/KyTferRespMsg.h"
#include "messages/KyTferStatusMsg.h"
#include "platform/KyDlog.h"
#include "support/LogCapture.h"

namespace {

namespace fs = std::filesystem;
using Message = std::unique_ptr<KyTferMsg>;

constexpr char CONTROL[] = "tfersvc-CtrlFifo";

/// What a request holds, for comparison: type, transaction, names, size and path.
std::string Describe(const KyTferMsg& request) {
    std::string text = std::to_string(request.GetMsgType()) + "|" + request.GetTransId();
    if (const auto* const file = dynamic_cast<const KyTferDevFileMsg*>(&request))
        text += "|" + file->GetXferFileName() + "|" + file->GetOrigFileName() + "|" +
                std::to_string(file->GetXferFileSize());
    if (const auto* const push = dynamic_cast<const KyTferPutDevFile*>(&request))
        text += "|" + push->GetSrcPath();
    return text;
}

class ClientTest : public IpcTest {
protected:
    /// A service that waits for one request, which must be as described, and sends these bytes.
    std::unique_ptr<Peer> Service(const std::string& description, const std::string& reply) {
        auto service = std::make_unique<Peer>([&](int told) {
            EXPECT_EQ(m_control.OpenReadFifo(CONTROL, 0600), 0);
            Peer::Tell(told);
            KyIpcMsgBuffer buffer(0);
            EXPECT_EQ(m_control.Read(&buffer, 10'000), 0);
            const Message request(KyTferMsgFactory::CreateMsgFromBuffer(&buffer));
            EXPECT_EQ(Describe(*request), description);
            EXPECT_EQ(Path(request->GetRespFifo()), m_reply);
            WriteRaw(m_reply, reply);
        });
        service->Hear();
        return service;
    }

    const std::string m_name = "TferSvcClnt-" + std::to_string(getpid());
    const std::string m_reply = Path(m_name + "-ClntRxFifo");
    TferSvcMsgClient& m_client = *TferSvcMsgClient::GetInstance();
    Session m_control;
};

TEST_F(ClientTest, RequestsAndReplies) {
    using Ask = std::function<KyTferMsg*()>;
    const Ask status = [&] { return m_client.GetStatus(); };
    const Ask directory = [&] { return m_client.GetDevDirectory(); };
    const Ask push = [&] { return m_client.PutDevFile("/source"); };
    const Ask fetch = [&] { return m_client.GetDevFile("name", "other", 4294967295U); };
    const Ask cancel = [&] { return m_client.CancelTransaction("the transaction"), nullptr; };
    KyTferRespMsg response(512);
    KyTferStatusMsg record(512);
    record.SetStatusMsg(std::string(5000, 's'));
    const std::string right = FrameOf(BytesOf(response)), large = FrameOf(BytesOf(record));
    const std::string timeOut =
        "Timeout from server for session: " + m_name + ", exceeded 30 seconds bytes in buf";
    const struct {
        const char* name;
        Ask ask;
        std::string request, reply;
        bool isReturned;
        std::string error;
    } rows[] = {
        {"status", status, "5|", large, true, ""},
        {"status, any reply will do", status, "5|", right, true, ""},
        {"directory", directory, "3|", right, true, ""},
        {"push", push, "2||||0|/source", right, true, ""},
        {"fetch", fetch, "1||name||-1", right, true, ""},
        {"cancel", cancel, "6|the transaction", right, false, ""},
        {"directory, wrong class", directory, "3|", large, false, ""},
        {"push, wrong class", push, "2||||0|/source", large, false, ""},
        {"fetch, wrong class", fetch, "1||name||-1", large, false, ""},
        {"unknown type", status, "5|", FrameOf(std::string("\x09\0\0\0", 4)), false, ""},
        {"no answer", status, "5|", "", false, timeOut + "(0)"},
        {"half an answer", status, "5|", large.substr(0, 50), false, timeOut + "(42)"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::unique_ptr<Peer> service = Service(row.request, row.reply);
        // The wait for the reply ends once the service has, however long it would last.
        s_poll = [&](pollfd* files, nfds_t count, int milliseconds) {
            EXPECT_GT(milliseconds, 59'000);
            pollfd either[] = {files[0], {service->HeardAt(), POLLIN, 0}};
            __real_poll(either, 2, 10'000);
            return __real_poll(files, count, 0);
        };
        const LogCapture log;
        const Message reply(row.ask());
        EXPECT_EQ(service->Wait(), 0);
        EXPECT_EQ(reply ? FrameOf(BytesOf(*reply)) : "", row.isReturned ? row.reply : "");
        EXPECT_EQ(log.Count(KY_DLOG_ERROR, ""), row.error.empty() ? 0 : 1);
        EXPECT_EQ(log.Find(row.error).source, "TferSvcMsgClient");
        EXPECT_FALSE(fs::exists(m_reply));
    }
}

TEST_F(ClientTest, FailuresEndTheRequestAtOnce) {
    const std::string control = Path(CONTROL);
    const struct {
        const char* name;
        std::function<void()> prepare;
        std::string error;
        size_t requestLength;
    } rows[] = {
        {"no service has ever run", [] {}, "Failed to open control FIFO: 5", 0},
        {"service killed", [&] { Service("", ""); }, "Failed to open control FIFO: 6", 0},
        {"a file in the control FIFO's place", [&] { fs::remove(control), WriteFile(control, ""); },
         "Failed to open control FIFO: 7", 0},
        {"the request is too large", [&] { fs::remove(control), m_control.OpenReadFifo(CONTROL, 0600); },
         "Failed to write to control FIFO: 8", 2'000'000},
        {"a file in the reply FIFO's place", [&] { WriteFile(m_reply, ""); }, "Failed to open read FIFO: 7",
         0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        row.prepare();
        const LogCapture log;
        EXPECT_EQ(m_client.PutDevFile(std::string(row.requestLength, 'x')), nullptr);
        const std::string error = log.Find("Failed to ").text;
        EXPECT_EQ(error.substr(0, error.find(": ") + 2) + error.back(), row.error);
        EXPECT_EQ(log.Count(KY_DLOG_ERROR, ""), 1);
    }
    EXPECT_EQ(ReadFile(m_reply), "") << "not ours to remove";
    m_control.Close();
}

}  // namespace
