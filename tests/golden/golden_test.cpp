// What leaves the card, compared byte for byte with files: every processor has to produce the same. A file that
// is missing or differs is told by the test, with what it got.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <memory>

#include "directory/KyTferDirectory.h"
#include "messages/KyTferMsgFactory.h"
#include "messages/KyTferPutDevFile.h"
#include "messages/KyTferRespMsg.h"
#include "messages/KyTferStatusMsg.h"
#include "platform/KyIpcMsgBuffer.h"
#include "support/TempDir.h"

namespace {

void ExpectGolden(const std::string& bytes, const char* file) {
    EXPECT_TRUE(bytes == ReadFile(std::string(GOLDEN) + file)) << file << ", now:\n"
                                                               << testing::PrintToString(bytes);
}

/// Fills what the message's class has with values that differ between processors if anything does.
void Fill(KyTferMsg& message) {
    message.SetSorServerId(0xFEDC);
    message.SetTransId("trans\xFF\x80");
    message.SetCallerContext(std::string("a\0b", 3));
    message.SetRespFifo("TferSvcClnt-1-ClntRxFifo");
    if (auto* const file = dynamic_cast<KyTferDevFileMsg*>(&message)) {
        file->SetOrigFileName("original");
        file->SetXferFileName(std::string(300, 'x'));
        file->SetXferFileSize(INT_MIN + 0x01020304);
    }
    if (auto* const push = dynamic_cast<KyTferPutDevFile*>(&message)) push->SetSrcPath("/a/b");
    if (auto* const reply = dynamic_cast<KyTferRespMsg*>(&message)) {
        reply->SetResultStatus(static_cast<KyTferRespMsg::TferMsgResult>(-2));
        reply->SetResultMsg("\xC3\xA9");
    }
    if (auto* const status = dynamic_cast<KyTferStatusMsg*>(&message)) {
        status->SetStatus(KyTferStatusMsg::TFER_STATUS_INPROGRESS);
        status->SetBytesRequested(UINT_MAX);
        status->SetBytesTransfered(0x89ABCDEF);
        status->SetXferFileName("event.log");
        status->SetStatusMsg("File transfer inprogress");
        status->SetFilePath("/var/local");
    }
}

TEST(Golden, Wire) {
    KyIpcMsgBuffer buffer(0);
    for (int type = KyTferMsg::TFER_MSG_GET_DEV_FILE; type <= KyTferMsg::TFER_MSG_CANCEL_TRANS; ++type) {
        const std::unique_ptr<KyTferMsg> message(
            KyTferMsgFactory::CreateMsg(static_cast<KyTferMsg::TferMsgType>(type)));
        ASSERT_TRUE(message);
        Fill(*message);
        message->Serialize(&buffer);
    }
    ExpectGolden({reinterpret_cast<const char*>(buffer.GetBuf()), static_cast<size_t>(buffer.GetLength())},
                 "wire.bin");
}

TEST(Golden, Document) {
    KyTferStatusMsg status(512);
    Fill(status);
    ExpectGolden(status.GetJsonStatus(), "status.json");
}

TEST(Golden, Listing) {
    setenv("TZ", "UTC0", 1);
    KyTferDirectory directory;
    ASSERT_TRUE(directory.ParseFile(GOLDEN "listing.txt"));
    directory.AddEntry("p", "added", "ADDED", "LOG", UINT_MAX, ULLONG_MAX);
    ExpectGolden(
        directory.GetEntryListAsJSONString("golden", 0, UINT_MAX, "", KyTferStatusMsg::TFER_STATUS_COMPLETE),
        "listing.json");
}

}  // namespace
