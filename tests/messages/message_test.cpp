#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <memory>
#include <numeric>
#include <tuple>
#include <vector>

#include "messages/KyTferMsgFactory.h"
#include "messages/KyTferPutDevFile.h"
#include "messages/KyTferRespMsg.h"
#include "messages/KyTferStatusMsg.h"
#include "support/Wire.h"

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

Message FromWire(const std::string& wire) {
    KyIpcMsgBuffer buffer(0);
    buffer.Append(reinterpret_cast<const unsigned char*>(wire.data()), static_cast<int>(wire.size()));
    return Message(KyTferMsgFactory::CreateMsgFromBuffer(&buffer));
}

const std::string kLong(300, 'x');  // its length takes two bytes
const std::vector<std::string> kBase = {Int(0xFEDC), Text("trans\xFF\x80"), Text("con\0text"s), Text("fifo")};

void FillBase(KyTferMsg& message) {
    message.SetSorServerId(0xFEDC);
    message.SetTransId("trans\xFF\x80");
    message.SetCallerContext("con\0text"s);
    message.SetRespFifo("fifo");
}

void FillFile(KyTferMsg& message) {
    auto& file = dynamic_cast<KyTferDevFileMsg&>(message);
    file.SetOrigFileName("orig");
    file.SetXferFileName(kLong);
    file.SetXferFileSize(INT_MIN + 0x01020304);
}

void FillStatus(KyTferMsg& message) {
    auto& status = dynamic_cast<Status&>(message);
    status.SetStatus(Status::TFER_STATUS_INPROGRESS);
    status.SetReqType(Status::TFER_REQ_GET_FILE);
    status.SetBytesRequested(UINT_MAX);
    status.SetBytesTransfered(0x89ABCDEF);
    status.SetOrigFileName("orig");
    status.SetXferFileName("\"\xC3\xA9\"");
    status.SetFilePath("/a/b");
    status.SetStatusMsg("text");
}

/// The bytes of a message that is cut after `length` bytes: missing fields are 0 or empty, which have the same bytes.
std::string Expected(const std::vector<std::string>& fields, size_t length) {
    std::string wire;
    for (const std::string& field : fields) {
        if (wire.size() + field.size() > length) length = 0;
        wire += length == 0 ? Int(0) : field;
    }
    return wire;
}

TEST(Messages, BytesOfEveryClassAndEveryTruncation) {
    const struct {
        std::function<void(KyTferMsg&)> fill;
        std::vector<std::string> fields;  // after those that every message has
    } rows[] = {
        {FillFile, {Text(kLong), Text("orig"), Int(0x81020304)}},
        {[](KyTferMsg& message) {
             FillFile(message);
             dynamic_cast<KyTferPutDevFile&>(message).SetSrcPath("/source");
         },
         {Text(kLong), Text("orig"), Int(0x81020304), Text("/source")}},
        {[](KyTferMsg&) {}, {}},
        {[](KyTferMsg& message) {
             auto& reply = dynamic_cast<KyTferRespMsg&>(message);
             reply.SetResultStatus(static_cast<KyTferRespMsg::TferMsgResult>(-2));
             reply.SetResultMsg("result");
         },
         {Int(-2U), Text("result")}},
        {FillStatus,
         {Int(3), Int(UINT_MAX), Int(0x89ABCDEF), Text("orig"), Text("\"\xC3\xA9\""), Text("/a/b/"),
          Text("text")}},
        {[](KyTferMsg&) {}, {}},
    };
    for (unsigned int type = 1; type <= std::size(rows); ++type) {
        const auto& [fill, own] = rows[type - 1];
        std::vector<std::string> fields = {Int(type)};
        fields.insert(fields.end(), kBase.begin(), kBase.end());
        fields.insert(fields.end(), own.begin(), own.end());
        const std::string wire = std::accumulate(fields.begin(), fields.end(), ""s);
        const Message made(KyTferMsgFactory::CreateMsg(static_cast<KyTferMsg::TferMsgType>(type)));
        FillBase(*made);
        fill(*made);
        EXPECT_EQ(BytesOf(*made), wire) << type;
        for (size_t length = 1; length <= wire.size(); ++length) {
            const Message read = FromWire(wire.substr(0, length));
            ASSERT_NE(read, nullptr) << type << " " << length;
            ASSERT_EQ(BytesOf(*read), Expected(fields, length)) << type << " " << length;
        }
    }
    for (const std::string& type : {""s, Int(0), Int(7), Int(-1U), Int(0x80000000U), Int(0x7FFFFFFFU)})
        EXPECT_EQ(FromWire(type), nullptr) << testing::PrintToString(type);
}

TEST(StatusMessage, Document) {
    Status message(512);
    FillStatus(message);
    EXPECT_EQ(message.GetJsonStatus(), R"({
  "context": "none",
  "fileTferStatus": [
    {
      "progress": 53,
      "status": 3,
      "statusMsg": "text",
      "statusStr": "TFER_STATUS_INPROGRESS",
      "tfername": "\"é\""
    }
  ]
})");
}

TEST(StatusMessage, ForeignWriterMayPutAnyNumber) {
    const Message message = FromWire(Int(5) + Int(0x12345) + Int(0) + Int(0) + Int(0) + Int(-7U) + Int(-1U) +
                                     Int(0x80000000U) + Text("o") + Text("caf\xE9") + Text("no/slash"));
    auto& status = dynamic_cast<Status&>(*message);
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
    Status from(512), to(512), baseAlone(512);
    FillBase(from);
    FillBase(baseAlone);
    FillStatus(from);
    static_cast<KyTferMsg&>(to) = static_cast<const KyTferMsg&>(from);
    EXPECT_EQ(BytesOf(to), BytesOf(baseAlone));
    to = from;
    Status swapped(512);
    swapped.Swap(to);
    EXPECT_EQ(BytesOf(swapped), BytesOf(from));
    EXPECT_EQ(swapped.GetReqType(), Status::TFER_REQ_GET_FILE);
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
        Status message(512);
        message.SetStatus(static_cast<Status::TferStatus>(status));
        message.SetBytesTransfered(transfered);
        message.SetBytesRequested(requested);
        EXPECT_EQ(message.GetPercentComplete(), percent) << transfered << '/' << requested << ' ' << status;
    }
}

}  // namespace
