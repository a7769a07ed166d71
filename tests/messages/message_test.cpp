#include <gtest/gtest.h>

#include <climits>

#include "messages/KyTferRespMsg.h"
#include "messages/KyTferStatusMsg.h"
#include "platform/KyIpcMsgBuffer.h"
#include "platform/KyIpcMsgUtil.h"
#include "support/LogCapture.h"

namespace {

using Status = KyTferStatusMsg;

void FillBase(KyTferMsg& msg) {
    msg.SetSorServerId(65535);
    msg.SetTransId("trans");
    msg.SetCallerContext(std::string("con\0text", 8));
    msg.SetRespFifo("fifo");
}

KyTferStatusMsg FullStatus() {
    KyTferStatusMsg msg(512);
    FillBase(msg);
    msg.SetStatus(Status::TFER_STATUS_INPROGRESS);
    msg.SetReqType(Status::TFER_REQ_GET_FILE);
    msg.SetBytesRequested(4000000000U);
    msg.SetBytesTransfered(3000000000U);
    msg.SetOrigFileName("orig");
    msg.SetXferFileName("xfer");
    msg.SetFilePath("/a/b");
    msg.SetStatusMsg("text");
    return msg;
}

KyTferRespMsg FullResponse() {
    KyTferRespMsg msg(512);
    FillBase(msg);
    msg.SetResultStatus(static_cast<KyTferRespMsg::TferMsgResult>(99));
    msg.SetResultMsg("result");
    return msg;
}

std::string BaseOf(const KyTferMsg& msg) {
    return std::to_string(msg.GetMsgType()) + "|" + std::to_string(msg.GetSorServerId()) + "|" +
           msg.GetTransId() + "|" + msg.GetCallerContext() + "|" + msg.GetRespFifo();
}

std::string Text(const KyTferStatusMsg& msg) {
    return BaseOf(msg) + "|" + std::to_string(msg.GetStatus()) + "|" +
           std::to_string(msg.GetBytesRequested()) + "|" + std::to_string(msg.GetBytesTransfered()) + "|" +
           msg.GetOrigFileName() + "|" + msg.GetXferFileName() + "|" + msg.GetFilePath() + "|" +
           msg.GetStatusMsg();
}

std::string Text(const KyTferRespMsg& msg) {
    return BaseOf(msg) + "|" + std::to_string(msg.GetResultStatus()) + "|" + msg.GetResultMsg();
}

/// Serialises `msg`, checks that it comes back whole, and that every cut leaves a message whose fields are a
/// beginning of the original's and nothing else.
template <typename Message>
void CheckRoundTripAndCuts(Message msg) {
    KyIpcMsgBuffer wire(64);
    msg.Serialize(&wire);
    EXPECT_EQ(KyTferMsg::PeekMsgType(wire.GetBuf()), msg.GetMsgType());
    Message back(512);
    back.Deserialize(&wire);
    EXPECT_EQ(Text(back), Text(msg));

    for (int length = 0; length < wire.GetLength(); ++length) {
        KyIpcMsgBuffer cut(0);
        ASSERT_TRUE(cut.Append(wire.GetBuf(), length));
        Message torn = msg;
        torn.Deserialize(&cut);
        EXPECT_NE(Text(torn), Text(msg)) << "cut at " << length;
        EXPECT_EQ(KyIpcMsgUtil::ExtractInteger(&cut), 0) << "cut at " << length;
    }
}

TEST(Message, ComesBackWholeAndSurvivesEveryCut) {
    CheckRoundTripAndCuts(FullStatus());
    CheckRoundTripAndCuts(FullResponse());
}

TEST(Message, ForeignWriterMayPutAnyNumber) {
    KyIpcMsgBuffer wire(0);
    for (int number : {99, 0x12345})
        KyIpcMsgUtil::PutInteger(&wire, number);
    for (const char* text : {"", "", ""})
        KyIpcMsgUtil::PutStringParam(&wire, text);
    for (int number : {-7, -1, INT_MIN})
        KyIpcMsgUtil::PutInteger(&wire, number);
    for (const char* text : {"o", "x", "no/slash", ""})
        KyIpcMsgUtil::PutStringParam(&wire, text);

    KyTferStatusMsg msg(512);
    msg.Deserialize(&wire);
    EXPECT_EQ(msg.GetMsgType(), 99);
    EXPECT_EQ(msg.GetSorServerId(), 0x2345);
    EXPECT_EQ(msg.GetBytesRequested(), UINT_MAX);
    EXPECT_EQ(msg.GetBytesTransfered(), 0x80000000U);
    EXPECT_EQ(msg.GetXferFullFilePath(), "no/slashx");
    EXPECT_EQ(msg.GetPercentComplete(), 0U);
    EXPECT_EQ(Status::GetStatusText(msg.GetStatus()), "TFER_STATUS_UNKNOWN");
    EXPECT_NE(msg.GetJsonStatus().find("\"status\": 4294967289"), std::string::npos);
}

TEST(Message, AssignmentThroughTheBaseCopiesTheBaseAlone) {
    LogCapture log;
    KyTferStatusMsg from = FullStatus();
    KyTferStatusMsg to(512);
    static_cast<KyTferMsg&>(to) = static_cast<const KyTferMsg&>(from);
    EXPECT_EQ(BaseOf(to), BaseOf(from));
    EXPECT_EQ(to.GetStatusMsg(), "");
    EXPECT_EQ(to.GetStatus(), Status::TFER_STATUS_NONE);
    EXPECT_EQ(log.Count(5, "Enter 0x"), 1);

    to = from;
    EXPECT_EQ(Text(to), Text(from));
    EXPECT_EQ(to.GetReqType(), Status::TFER_REQ_GET_FILE);
    EXPECT_EQ(KyTferStatusMsg(from).GetReqType(), Status::TFER_REQ_GET_FILE);
    EXPECT_EQ(log.Lines().size(), 1U) << "a record's own assignment is silent";
}

TEST(StatusMessage, Percentage) {
    const struct {
        Status::TferStatus status;
        unsigned int transfered, requested, percent;
    } rows[] = {
        {Status::TFER_STATUS_NONE, 5, 10, 0},
        {Status::TFER_STATUS_REQUESTED, 5, 10, 0},
        {Status::TFER_STATUS_COMPLETE, 0, 10, 100},
        {Status::TFER_STATUS_FAIL, 0, 10, 100},
        {static_cast<Status::TferStatus>(5), 10, 10, 0},
        {Status::TFER_STATUS_INPROGRESS, 0, 0, 100},
        {Status::TFER_STATUS_INPROGRESS, 11, 10, 100},
        {Status::TFER_STATUS_INPROGRESS, 1, 100, 0},
        {Status::TFER_STATUS_INPROGRESS, 7, 100, 7},
        {Status::TFER_STATUS_INPROGRESS, 29, 100, 28},
        {Status::TFER_STATUS_INPROGRESS, 50, 100, 50},
        {Status::TFER_STATUS_INPROGRESS, 57, 100, 56},
        {Status::TFER_STATUS_INPROGRESS, 1, 3, 33},
        {Status::TFER_STATUS_INPROGRESS, 2, 3, 66},
        {Status::TFER_STATUS_INPROGRESS, 33554433, 33554434, 100},
        {Status::TFER_STATUS_INPROGRESS, 0, UINT_MAX, 0},
    };
    for (const auto& row : rows) {
        KyTferStatusMsg msg(512);
        msg.SetStatus(row.status);
        msg.SetBytesTransfered(row.transfered);
        msg.SetBytesRequested(row.requested);
        EXPECT_EQ(msg.GetPercentComplete(), row.percent)
            << row.transfered << " of " << row.requested << ", status " << row.status;
    }
}

TEST(StatusMessage, FilePathEndsWithOneSlash) {
    const struct { const char *given, *stored; } rows[] = {{"/a/b", "/a/b/"}, {"/a/b/", "/a/b/"}, {"", "/"}};
    for (const auto& row : rows) {
        KyTferStatusMsg msg(512);
        msg.SetFilePath(row.given);
        msg.SetXferFileName("f.bin");
        EXPECT_EQ(msg.GetFilePath(), row.stored);
        EXPECT_EQ(msg.GetXferFullFilePath(), std::string(row.stored) + "f.bin");
    }
}

TEST(StatusMessage, JsonDocument) {
    LogCapture log;
    EXPECT_EQ(FullStatus().GetJsonStatus(), R"({
  "context": "none",
  "fileTferStatus": [
    {
      "progress": 75,
      "status": 3,
      "statusMsg": "text",
      "statusStr": "TFER_STATUS_INPROGRESS",
      "tfername": "xfer"
    }
  ]
})");
    EXPECT_EQ(log.Count(7, R"(Returning (single line, sorted keys): {"context": "none", "fileTferStatus": )"
                           R"([{"progress": 75, "status": 3, "statusMsg": "text", "statusStr": )"
                           R"("TFER_STATUS_INPROGRESS", "tfername": "xfer"}]})"),
              1);

    KyTferStatusMsg odd(512);
    odd.SetXferFileName("caf\xE9");
    EXPECT_EQ(odd.GetJsonStatus().find("tfername"), std::string::npos) << "not UTF-8: left out";
    EXPECT_NE(odd.GetJsonStatus().find("\"statusStr\": \"TFER_STATUS_NONE\""), std::string::npos);
}

}  // namespace
