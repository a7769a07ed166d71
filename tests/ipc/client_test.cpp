#include "client/TferSvcMsgClient.h"

#include <malloc.h>

#include <memory>

#include "IpcTest.h"
#include "messages/KyTferMsgFactory.h"
#include "messages/KyTferPutDevFile.h"
#include "messages/KyTferRespMsg.h"
#include "messages/KyTferStatusMsg.h"
#include "platform/KyDlog.h"
#include "support/LogCapture.h"

namespace {

using Message = std::unique_ptr<KyTferMsg>;

constexpr char kControl[] = "tfersvc-CtrlFifo";

/// The fields of a request: type, transaction, names, size and path.
std::string Describe(const KyTferMsg& request) {
    const auto* const file = dynamic_cast<const KyTferDevFileMsg*>(&request);
    const auto* const push = dynamic_cast<const KyTferPutDevFile*>(&request);
    std::string text = std::to_string(request.GetMsgType()) + "|" + request.GetTransId() + "|";
    if (file) text += file->GetXferFileName() + "|" + file->GetOrigFileName();
    if (file) text += "|" + std::to_string(file->GetXferFileSize());
    return push ? text + "|" + push->GetSrcPath() : text;
}

class ClientTest : public IpcTest {
protected:
    /// Reads the request as the service, compares it with the description, and sends these bytes.
    void Serve(const std::string& description, const std::string& reply) {
        KyIpcMsgBuffer buffer(0);
        ASSERT_EQ(m_reader.Read(&buffer, 1000), 0);
        const Message request(KyTferMsgFactory::CreateMsgFromBuffer(&buffer));
        EXPECT_EQ(Describe(*request), description);
        EXPECT_EQ(Path(request->GetRespFifo()), m_reply);
        EXPECT_EQ(fs::status(m_reply).permissions(), fs::perms(0777)) << "the service may be any user";
        WriteRaw(m_reply, reply);
    }

    const std::string m_name = "TferSvcClnt-" + std::to_string(getpid());
    const std::string m_reply = Path(m_name + "-ClntRxFifo");
    TferSvcMsgClient& m_client = *TferSvcMsgClient::GetInstance();
};

TEST_F(ClientTest, RequestsAndReplies) {
    using Ask = std::function<KyTferMsg*()>;
    const Ask status = [&] { return m_client.GetStatus(); };
    const Ask directory = [&] { return m_client.GetDevDirectory(); };
    const Ask push = [&] { return m_client.PutDevFile("/source"); };
    const Ask fetch = [&] { return m_client.GetDevFile("name", "other", 4294967295U); };
    KyTferRespMsg response(512);
    KyTferStatusMsg record(512);
    record.SetStatusMsg(std::string(5000, 's'));
    const std::string right = FrameOf(BytesOf(response)), large = FrameOf(BytesOf(record));
    const std::string late = "Timeout from server for session: " + m_name + ", exceeded 30 seconds ";
    const struct {
        const char* name;
        Ask ask;
        std::string request, reply;
        bool isReturned;
        std::string error;
    } rows[] = {
        {"status", status, "5||", large, true, ""},
        {"directory", directory, "3||", right, true, ""},
        {"push", push, "2||||0|/source", right, true, ""},
        {"fetch", fetch, "1||name||-1", right, true, ""},
        {"cancel", [&] { return m_client.CancelTransaction("id"), nullptr; }, "6|id|", right, false, ""},
        {"directory, wrong class", directory, "3||", large, false, ""},
        {"push, wrong class", push, "2||||0|/source", large, false, ""},
        {"fetch, wrong class", fetch, "1||name||-1", large, false, ""},
        {"unknown type", status, "5||", FrameOf(std::string("\x09\0\0\0", 4)), false, ""},
        {"no answer", status, "5||", "", false, late + "bytes in buf(0)"},
        {"half an answer", status, "5||", large.substr(0, 50), false, late + "bytes in buf(42)"},
        {"memory runs out", status, "5||", "", false, "std::bad_alloc"},
    };
    ASSERT_EQ(m_reader.OpenReadFifo(kControl, 0600), 0);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto round = [&] {
            int polls = 0;
            s_poll = [&](pollfd* files, nfds_t count, int milliseconds) {
                if (milliseconds <= 1000) return __real_poll(files, count, milliseconds);
                EXPECT_TRUE(milliseconds > 59'000 && milliseconds <= 60'000) << milliseconds;
                if (++polls == 1) Serve(row.request, row.reply);
                if (row.error == "std::bad_alloc") throw std::bad_alloc();
                return __real_poll(files, count, 0);
            };
            const LogCapture log;
            const Message reply(row.ask());
            EXPECT_EQ(reply ? FrameOf(BytesOf(*reply)) : "", row.isReturned ? row.reply : "");
            EXPECT_EQ(log.Count(KY_DLOG_ERROR, row.error), row.error.empty() ? 0 : 1);
            EXPECT_NE(access(m_reply.c_str(), F_OK), 0);
            EXPECT_LE(polls, 2) << "a closed writer wakes the reader";
        };
        // A sanitizer reports 0 here, and finds leaks itself.
        constexpr size_t kRounds = 20;
        size_t inUse[2 * kRounds];
        for (size_t& bytes : inUse) {
            round();
            bytes = mallinfo2().uordblks;
        }
        EXPECT_LT(inUse[2 * kRounds - 1], inUse[kRounds] + 50 * kRounds) << "memory is lost";
    }
}

TEST_F(ClientTest, FailuresEndTheRequestAtOnce) {
    const auto fails = [&](const std::string& text, int status, size_t requestLength = 0) {
        const LogCapture log;
        EXPECT_EQ(m_client.PutDevFile(std::string(requestLength, 'x')), nullptr);
        const std::string why = ", for session: " + m_name + ", session status: " + std::to_string(status);
        EXPECT_EQ(log.Count(KY_DLOG_ERROR, text + why), 1);
    };
    fails(std::string("Failed to open control FIFO: ") + kControl, Session::IPC_NO_FIFO);
    ASSERT_EQ(m_reader.OpenReadFifo(kControl, 0600), 0);
    fails(std::string("Failed to write to control FIFO: ") + kControl, Session::IPC_TOO_LARGE, 2'000'000);
    WriteFile(m_reply, "");
    fails("Failed to open read FIFO: " + m_name + "-ClntRxFifo", Session::IPC_REFUSED);
    EXPECT_EQ(ReadFile(m_reply), "") << "not ours to remove";
}

}  // namespace
