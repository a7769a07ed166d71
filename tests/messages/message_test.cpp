#include <gtest/gtest.h>

#include <memory>
#include <tuple>
#include <typeinfo>
#include <vector>

#include "messages/KyTferCancelTransMsg.h"
#include "messages/KyTferGetDevDirMsg.h"
#include "messages/KyTferGetDevFile.h"
#include "messages/KyTferMsgFactory.h"
#include "messages/KyTferPutDevFile.h"
#include "messages/KyTferRespMsg.h"
#include "messages/KyTferStatusMsg.h"
#include "platform/KyIpcMsgBuffer.h"

namespace {

using Message = std::unique_ptr<KyTferMsg>;
using Status = KyTferStatusMsg;
using namespace std::string_literals;

std::string Int(unsigned int value) {
    const auto byte = [value](int shift) { return static_cast<char>(value >> shift & 0xFF); };
    return {byte(0), byte(8), byte(16), byte(24)};
}

std::string Text(const std::string& text) {
    return Int(static_cast<unsigned int>(text.size())) + text;
}

std::string BytesOf(KyTferMsg& message) {
    KyIpcMsgBuffer buffer(64);
    message.Serialize(&buffer);
    return {reinterpret_cast<const char*>(buffer.GetBuf()), static_cast<size_t>(buffer.GetLength())};
}

Message FromWire(const std::string& wire) {
    KyIpcMsgBuffer buffer(0);
    buffer.Append(reinterpret_cast<const unsigned char*>(wire.data()), static_cast<int>(wire.size()));
    return Message(KyTferMsgFactory::CreateMsgFromBuffer(&buffer));
}

void FillBase(KyTferMsg& message) {
    message.SetSorServerId(65535);
    message.SetTransId("trans");
    message.SetCallerContext("con\0text"s);
    message.SetRespFifo("fifo");
}

void FillFile(KyTferDevFileMsg& message) {
    message.SetOrigFileName("orig");
    message.SetXferFileName("xfer");
    message.SetXferFileSize(-2);
}

KyTferStatusMsg FullStatus() {
    KyTferStatusMsg message(512);
    message.SetStatus(Status::TFER_STATUS_INPROGRESS);
    message.SetReqType(Status::TFER_REQ_GET_FILE);
    message.SetBytesRequested(4000);
    message.SetBytesTransfered(3000);
    message.SetOrigFileName("orig");
    message.SetXferFileName("xfer");
    message.SetFilePath("/a/b");
    message.SetStatusMsg("text");
    return message;
}

/// What becomes of a message of which only `length` bytes arrive: the fields behind are 0 or empty, which
/// looks the same on the wire.
std::string Expected(const std::vector<std::string>& fields, size_t length) {
    std::string wire;
    for (const std::string& field : fields) {
        if (wire.size() + field.size() > length) length = 0;
        wire += length == 0 ? Int(0) : field;
    }
    return wire;
}

TEST(Messages, EveryClassAndEveryTruncation) {
    KyTferGetDevFile fetch(512);
    KyTferPutDevFile push(512);
    KyTferGetDevDirMsg directory(512);
    KyTferRespMsg response(512);
    KyTferStatusMsg status = FullStatus();
    KyTferCancelTransMsg cancel(512);
    FillFile(fetch);
    FillFile(push);
    push.SetSrcPath("/source");
    response.SetResultStatus(static_cast<KyTferRespMsg::TferMsgResult>(-1));
    response.SetResultMsg("result");
    // The type, the message, and the fields behind those of every message.
    const std::tuple<unsigned int, KyTferMsg&, std::vector<std::string>> rows[] = {
        {1, fetch, {Text("xfer"), Text("orig"), Int(-2U)}},
        {2, push, {Text("xfer"), Text("orig"), Int(-2U), Text("/source")}},
        {3, directory, {}},
        {4, response, {Int(-1U), Text("result")}},
        {5, status, {Int(3), Int(4000), Int(3000), Text("orig"), Text("xfer"), Text("/a/b/"), Text("text")}},
        {6, cancel, {}},
    };
    for (const auto& [type, message, own] : rows) {
        SCOPED_TRACE(type);
        FillBase(message);
        std::vector<std::string> fields = {Int(type), Int(65535), Text("trans"), Text("con\0text"s),
                                           Text("fifo")};
        fields.insert(fields.end(), own.begin(), own.end());
        const std::string wire = BytesOf(message);
        ASSERT_EQ(wire, Expected(fields, wire.size()));
        for (size_t length = 1; length <= wire.size(); ++length) {
            const Message read = FromWire(wire.substr(0, length));
            ASSERT_NE(read, nullptr) << length;
            const KyTferMsg& back = *read;
            ASSERT_TRUE(typeid(back) == typeid(message)) << length;
            ASSERT_EQ(BytesOf(*read), Expected(fields, length)) << length;
        }
    }
    for (const std::string& type : {""s, Int(0), Int(7), Int(-1U), Int(0x80000000U), Int(0x7FFFFFFFU)})
        EXPECT_EQ(FromWire(type), nullptr) << testing::PrintToString(type);
}

TEST(StatusMessage, ForeignWriterMayPutAnyNumber) {
    const Message message = FromWire(Int(5) + Int(0x12345) + Int(0) + Int(0) + Int(0) + Int(-7U) + Int(-1U) +
                                     Int(0x80000000U) + Text("o") + Text("caf\xE9") + Text("no/slash"));
    auto& status = dynamic_cast<KyTferStatusMsg&>(*message);
    EXPECT_EQ(status.GetSorServerId(), 0x2345);
    EXPECT_EQ(status.GetBytesRequested(), 0xFFFFFFFFU);
    EXPECT_EQ(status.GetXferFullFilePath(), "no/slashcaf\xE9");
    EXPECT_EQ(Status::GetStatusText(status.GetStatus()), "TFER_STATUS_UNKNOWN");
    EXPECT_NE(status.GetJsonStatus().find("\"status\": 4294967289"), std::string::npos);
    EXPECT_EQ(status.GetJsonStatus().find("tfername"), std::string::npos) << "not UTF-8: left out";
    status.SetFilePath("");
    EXPECT_EQ(status.GetFilePath(), "/");
}

TEST(StatusMessage, AssignmentThroughTheBaseCopiesTheBaseAlone) {
    KyTferStatusMsg from = FullStatus(), to(512), baseAlone(512);
    FillBase(from);
    FillBase(baseAlone);
    static_cast<KyTferMsg&>(to) = static_cast<const KyTferMsg&>(from);
    EXPECT_EQ(BytesOf(to), BytesOf(baseAlone));
    to = from;
    EXPECT_EQ(BytesOf(to), BytesOf(from));
    EXPECT_EQ(KyTferStatusMsg(to).GetReqType(), Status::TFER_REQ_GET_FILE);
}

TEST(StatusMessage, Percentage) {
    const std::tuple<int, unsigned int, unsigned int, unsigned int> rows[] = {
        {Status::TFER_STATUS_NONE, 5, 10, 0},
        {Status::TFER_STATUS_COMPLETE, 0, 10, 100},
        {Status::TFER_STATUS_FAIL, 0, 10, 100},
        {5, 10, 10, 0},
        {Status::TFER_STATUS_INPROGRESS, 0, 0, 100},
        {Status::TFER_STATUS_INPROGRESS, 11, 10, 100},
        {Status::TFER_STATUS_INPROGRESS, 29, 100, 28},
        {Status::TFER_STATUS_INPROGRESS, 33554433, 33554434, 100},
        {Status::TFER_STATUS_INPROGRESS, 0, 0xFFFFFFFFU, 0},
    };
    for (const auto& [status, transfered, requested, percent] : rows) {
        KyTferStatusMsg message(512);
        message.SetStatus(static_cast<Status::TferStatus>(status));
        message.SetBytesTransfered(transfered);
        message.SetBytesRequested(requested);
        EXPECT_EQ(message.GetPercentComplete(), percent) << transfered << '/' << requested << ' ' << status;
    }
}

TEST(StatusMessage, JsonDocument) {
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
}

}  // namespace
