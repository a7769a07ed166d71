// tferctl and a service that other callers use at the same time. The test is the service: it gives tferctl the answers
// that the other callers' transfers lead to.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <filesystem>
#include <map>
#include <memory>

#include "host/KyFd.h"
#include "host/KyHostIpc.h"
#include "messages/KyTferMsgFactory.h"
#include "messages/KyTferPutDevFile.h"
#include "messages/KyTferRespMsg.h"
#include "messages/KyTferStatusMsg.h"
#include "support/Process.h"
#include "support/TempDir.h"
#include "support/Wire.h"

namespace fs = std::filesystem;

namespace {

using Record = KyTferStatusMsg;
using Reply = std::shared_ptr<KyTferMsg>;

const std::string kStaging = "/var/local/tal/pldserver/", kLanding = kStaging + "3/";
const std::string kDownload = kLanding + "tferFiles/";

Reply Result(const std::string& refusal) {
    auto reply = std::make_shared<KyTferRespMsg>(512);
    reply->SetResultStatus(static_cast<KyTferRespMsg::TferMsgResult>(refusal.empty() ? 1 : 2));
    reply->SetResultMsg(refusal);
    return reply;
}

Reply Shows(Record::TferStatus status, const std::string& directory, const std::string& name,
            const std::string& otherName = "", const std::string& text = "") {
    auto reply = std::make_shared<Record>(512);
    reply->SetStatus(status);
    reply->SetFilePath(directory);
    reply->SetXferFileName(name);
    reply->SetOrigFileName(otherName);
    reply->SetStatusMsg(text);
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

    /// Runs a command and answers its requests in turn, each with the reply that a letter stands for.
    /// @return its exit status
    int Run(const std::string& arguments, const std::string& letters) {
        Process tool("timeout 20 " TFERCTL_PROGRAM " " + arguments + " >" + m_temp / "out" + " 2>" +
                     m_temp / "err");
        for (const char letter : letters) {
            KyIpcMsgBuffer buffer(0);
            if (m_control.Read(&buffer, 10000) != 0) break;
            const std::unique_ptr<KyTferMsg> request(KyTferMsgFactory::CreateMsgFromBuffer(&buffer));
            if (const auto* const push = dynamic_cast<const KyTferPutDevFile*>(request.get()))
                ExpectForTheGroup(push->GetSrcPath());
            // The file comes, whole or not, before another's fetch is shown.
            if (letter == 'W' || letter == 'V') WriteFile(kDownload + "old", letter == 'W' ? "new" : "short");
            const std::string reply = BytesOf(*m_replies.at(letter));
            Session session;
            session.OpenCtrlFifo(request->GetRespFifo().c_str());
            session.WriteCtrl(reply.data(), static_cast<int>(reply.size()));
        }
        return tool.End(0);
    }

    static void ExpectForTheGroup(const std::string& copy) {
        EXPECT_EQ(ReadFile(copy), "mine");
        EXPECT_EQ(fs::status(copy).permissions(), fs::perms(0660));
        EXPECT_EQ(fs::status(copy.substr(0, copy.rfind('/'))).permissions(), fs::perms(0770));
    }

    const std::map<char, Reply> m_replies = {
        {'-', Shows(Record::TFER_STATUS_NONE, "", "")},
        {'y', Result("")},
        {'b', Result("Transaction already in progress")},
        {'c', Result("File transfer cancelled")},
        {'n', Result("no\x1B!")},
        {'p', Shows(Record::TFER_STATUS_INPROGRESS, kStaging, "3-1", "mine.cfg")},
        {'P', Shows(Record::TFER_STATUS_COMPLETE, kStaging, "3-1", "mine.cfg")},
        {'Q', Shows(Record::TFER_STATUS_COMPLETE, kStaging, "3-2", "mine.cfg")},
        {'l', Shows(Record::TFER_STATUS_COMPLETE, kLanding, "listing.txt", "DIRREQ")},
        {'L', Shows(Record::TFER_STATUS_COMPLETE, kDownload, "listing.txt", "DIRREQ")},
        {'m', Shows(Record::TFER_STATUS_INPROGRESS, kLanding, "other", "DIRREQ")},
        {'M', Shows(Record::TFER_STATUS_COMPLETE, kDownload, "old", "DIRREQ")},
        {'F', Shows(Record::TFER_STATUS_COMPLETE, kDownload, "old", "mine.cfg")},
        {'G', Shows(Record::TFER_STATUS_COMPLETE, kDownload, "other")},
        {'W', Shows(Record::TFER_STATUS_COMPLETE, kDownload, "other")},
        {'V', Shows(Record::TFER_STATUS_COMPLETE, kDownload, "other")},
        {'S', Shows(Record::TFER_STATUS_COMPLETE, kStaging, "old", "x")},
        {'X', Shows(Record::TFER_STATUS_FAIL, kLanding, "old", "", "File transfer cancelled: by somebody")},
    };
    const TempDir m_temp;
    Session m_control;
};

TEST_F(TferctlRace, RecordsOfOthers) {
    const std::string put = "put " + m_temp / "mine.cfg";
    const std::string notSent =
        "Another transfer began before it could be seen whether mine.cfg had been sent.";
    const std::string notCome = "Another transfer began before it could be seen whether old had arrived.";
    const std::string notOurs = "Somebody else has cancelled the transfer";
    const struct {
        const char* name;
        std::string arguments, replies;
        int status;
        std::string sentence;
    } rows[] = {
        {"lost race", put, "--b-ypP", 0, "Waiting for another transfer: "},
        {"another push of that name", put, "--ypQ", 1, notSent},
        {"fetch after it", put, "--yF", 1, notSent},
        {"cancelled while it waited", put, "--c", 1, notOurs},
        {"refused", put, "--n", 3, "The transfer service refused: no?!"},
        {"new service", put, "--yp-", 1, "The transfer service has restarted and lost this transfer."},
        {"result for a status", put, "y", 1,
         "The transfer service sent no status in reply to a status request."},
        {"status for a result", put, "---", 1,
         "The transfer service sent a reply of another kind than expected."},
        {"fetches in the place of the listing", "ls", "-yM-yM-yM", 1,
         "Other transfers replaced the fetched listing three times."},
        {"push in the place of the listing", "ls", "-yP-yL", 0, ""},
        {"other listing", "ls", "-ymL-yL", 0, ""},
        {"listing not moved yet", "ls", "-ylL", 0, ""},
        {"fetch", "get old", "-yL-yF", 0, ""},
        {"another fetch, and an old file", "get old", "-yL-yG", 1, notCome},
        {"another fetch, and the file", "get old", "-yL-yW", 0, ""},
        {"another fetch, and a part of the file", "get old", "-yL-yV", 1, notCome},
        {"push, and an old file", "get old", "-yL-yS", 1, notCome},
        {"cancelled by another", "get old", "-yL-yX", 1, notOurs},
        {"watched to its end", "status --watch", "pP", 0, ""},
        {"watched, and failed", "status --watch", "pX", 1,
         "The transfer has failed: File transfer cancelled: by somebody"},
        {"two files of that name", "get same", "-yL", 1,
         "The device has 2 files same; use the transfer name of the one you want."},
    };
    WriteFile(kDownload + "old", "old");
    WriteFile(kDownload + "listing.txt",
              "1,3\nold.log , old , LOG , 3 , 1\nsame , a , LOG , 1 , 1\nsame , b , LOG , 1 , 1\n");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Run(row.arguments, row.replies), row.status);
        const std::string said = ReadFile(m_temp / "err");
        EXPECT_NE(said.find(row.sentence), std::string::npos) << said;
        EXPECT_EQ(said.empty(), row.sentence.empty()) << said;
    }
}

TEST_F(TferctlRace, OneTferctlAfterTheOther) {
    const KyFd other(open(kStaging.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(other.Get(), LOCK_SH), 0);
    EXPECT_EQ(Run("put --no-wait " + m_temp / "mine.cfg", "--"), 3);
}

}  // namespace
