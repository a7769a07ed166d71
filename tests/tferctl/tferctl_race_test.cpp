// tferctl and a service that other callers use at the same time. The test is the service: it gives tferctl the answers
// that the other callers' transfers lead to.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "host/KyHostIpc.h"
#include "messages/KyTferMsgFactory.h"
#include "messages/KyTferRespMsg.h"
#include "messages/KyTferStatusMsg.h"
#include "platform/KyIpcFifoSession.h"
#include "platform/KyIpcMsgBuffer.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;

namespace {

using Record = KyTferStatusMsg;
using Reply = std::shared_ptr<KyTferMsg>;
using Replies = std::vector<Reply>;

const std::string kStaging = "/var/local/tal/pldserver/", kLanding = kStaging + "3/";
const std::string kDownload = kLanding + "tferFiles/";

struct Session : KyIpcFifoSession {
    Session() : KyIpcFifoSession("test", IPC_CLOSE_NO_CONFIRM) {}
};

Reply Result(const std::string& refusal) {
    auto reply = std::make_shared<KyTferRespMsg>(512);
    reply->SetResultStatus(static_cast<KyTferRespMsg::TferMsgResult>(refusal.empty() ? 1 : 2));
    reply->SetResultMsg(refusal);
    return reply;
}

Reply Shows(Record::TferStatus status, const std::string& directory, const std::string& name,
            const std::string& otherName = "") {
    auto reply = std::make_shared<Record>(512);
    reply->SetStatus(status);
    reply->SetFilePath(directory);
    reply->SetXferFileName(name);
    reply->SetOrigFileName(otherName);
    return reply;
}

class TferctlRace : public testing::Test {
protected:
    TferctlRace() {
        setenv("KY_IPC_DIR", (m_temp / "ipc").c_str(), 1);
        EXPECT_EQ(ky_host::CreateIpcDirectory(), 0);
        EXPECT_EQ(m_control.OpenReadFifo("tfersvc-CtrlFifo", 0600), 0);
        fs::create_directories(kDownload);
        WriteFile(m_temp / "mine.cfg", "mine");
    }

    ~TferctlRace() override { fs::remove_all("/var/local/tal"); }

    /// Runs a command and answers its requests in turn. @return its exit status
    int Run(const std::string& arguments, const Replies& replies) {
        Process tool(TFERCTL_PROGRAM " " + arguments + " >" + m_temp / "out" + " 2>" + m_temp / "err");
        for (const Reply& reply : replies) {
            KyIpcMsgBuffer buffer(0);
            if (m_control.Read(&buffer, 10000) != 0) break;
            const std::unique_ptr<KyTferMsg> request(KyTferMsgFactory::CreateMsgFromBuffer(&buffer));
            buffer.Clear();
            reply->Serialize(&buffer);
            Session session;
            session.OpenCtrlFifo(request->GetRespFifo().c_str());
            session.WriteCtrl(reinterpret_cast<const char*>(buffer.GetBuf()), buffer.GetLength());
        }
        return tool.End(0);
    }

    const TempDir m_temp;
    Session m_control;
};

TEST_F(TferctlRace, RecordsOfOthers) {
    constexpr auto kDone = Record::TFER_STATUS_COMPLETE, kMoving = Record::TFER_STATUS_INPROGRESS;
    const Reply none = Shows(Record::TFER_STATUS_NONE, "", ""), yes = Result("");
    const Reply busy = Result("Transaction already in progress"),
                done = Shows(kDone, kStaging, "3-1", "mine.cfg");
    const Reply moving = Shows(kMoving, kStaging, "3-1", "mine.cfg");
    const Reply listing = Shows(kDone, kDownload, "listing.txt", "DIRREQ");
    const Reply noListing = Shows(kDone, kDownload, "old", "DIRREQ");
    const Reply fetched = Shows(kDone, kDownload, "old", "mine.cfg");
    const std::string put = "put " + m_temp / "mine.cfg";
    const struct {
        const char* name;
        std::string arguments;
        Replies replies;
        int status;
        std::string sentence;
    } rows[] = {
        {"lost race", put, {none, none, busy, none, yes, moving, done}, 0, "Waiting for another transfer: "},
        {"another's push of that name",
         put,
         {none, none, yes, moving, Shows(kDone, kStaging, "3-2", "mine.cfg")},
         1,
         "Another transfer began before it could be seen whether mine.cfg had been sent."},
        {"another's fetch after it",
         put,
         {none, none, yes, fetched},
         1,
         "Another transfer began before it could be seen whether mine.cfg had been sent."},
        {"cancelled while it waited",
         put,
         {none, none, Result("File transfer cancelled")},
         1,
         "Somebody else has cancelled the transfer"},
        {"refused", put, {none, none, Result("no")}, 3, "The transfer service refused: no"},
        {"service that begins anew",
         put,
         {none, none, yes, moving, none},
         1,
         "The transfer service has begun anew and lost this transfer."},
        {"result for a status",
         put,
         {yes},
         1,
         "The transfer service answered with something else than its status."},
        {"status for a result",
         put,
         {none, none, none},
         1,
         "The transfer service answered with something else than a result."},
        {"another's fetch in the place of the listing",
         "ls",
         {none, yes, noListing, none, yes, noListing, none, yes, noListing},
         1,
         "Other transfers have come between this one and its listing, three times."},
        {"another's push in the place of the listing", "ls", {none, yes, done, none, yes, listing}, 0, ""},
        {"another's listing",
         "ls",
         {none, yes, Shows(kMoving, kLanding, "other", "DIRREQ"), listing, none, yes, listing},
         0,
         ""},
        {"listing not moved yet",
         "ls",
         {none, yes, Shows(kDone, kLanding, "listing.txt", "DIRREQ"), listing},
         0,
         ""},
        {"fetch", "get old", {none, yes, listing, none, yes, fetched}, 0, ""},
        {"another's fetch, and an old file of that name",
         "get old",
         {none, yes, listing, none, yes, Shows(kDone, kDownload, "other")},
         1,
         "Another transfer began before it could be seen whether old had come."},
        {"another's push, and an old file of that name",
         "get old",
         {none, yes, listing, none, yes, Shows(kDone, kStaging, "old", "x")},
         1,
         "Another transfer began before it could be seen whether old had come."},
        {"cancelled by another",
         "get old",
         {none, yes, listing, none, yes,
          [&] {
              auto record =
                  std::static_pointer_cast<Record>(Shows(Record::TFER_STATUS_FAIL, kLanding, "old"));
              record->SetStatusMsg("File transfer cancelled: by somebody");
              return record;
          }()},
         1,
         "Somebody else has cancelled the transfer"},
        {"two files of that name",
         "get same",
         {none, yes, listing},
         1,
         "The device has 2 files same; use the transfer name of the one you want."},
    };
    WriteFile(kDownload + "old", "old");
    WriteFile(kDownload + "listing.txt",
              "1,3\nold.log , old , LOG , 3 , 1\nsame , a , LOG , 1 , 1\nsame , b , LOG , 1 , 1\n");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Run(row.arguments, row.replies), row.status);
        const std::string said = ReadFile(m_temp / "err");
        EXPECT_EQ(said.find(row.sentence) != std::string::npos, true) << said;
        EXPECT_TRUE(!row.sentence.empty() || said.empty()) << said;
    }
}

}  // namespace
