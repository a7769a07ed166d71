#include <gtest/gtest.h>

#include <memory>
#include <numeric>
#include <tuple>
#include <vector>

#include "messages/KyTferMsgFactory.h"
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
    // The fields behind those of every message.
    const std::vector<std::string> rows[] = {
        {Text("xfer"), Text("orig"), Int(-2U)},
        {Text("xfer"), Text("orig"), Int(-2U), Text("/source")},
        {},
        {Int(-1U), Text("result")},
        {Int(3), Int(4000), Int(3000), Text("orig"), Text("xfer"), Text("/a/b/"), Text("text")},
        {},
    };
    for (unsigned int type = 1; type <= std::size(rows); ++type) {
        const std::vector<std::string>& own = rows[type - 1];
        std::vector<std::string> fields = {Int(type), Int(65535), Text("trans"), Text("con\0text"s),
                                           Text("fifo")};
        fields.insert(fields.end(), own.begin(), own.end());
        const std::string wire = std::accumulate(fields.begin(), fields.end(), ""s);
        for (size_t length = 1; length <= wire.size(); ++length) {
            const Message read = FromWire(wire.substr(0, length));
            ASSERT_NE(read, nullptr) << type << " " << length;
            ASSERT_EQ(BytesOf(*read), Expected(fields, length)) << type << " " << length;
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

}  // namespace
