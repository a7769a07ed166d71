// Any bytes as a message: the message survives serialisation, copies and JSON.
#include <jansson.h>

#include <cstring>

#include "fuzz/Wire.h"
#include "messages/KyTferStatusMsg.h"

using fuzz::Message;
using fuzz::Require;
using fuzz::Serialised;

namespace {

void CheckBaseCopies(KyTferMsg& message) {
    const size_t base = 5 * sizeof(int32_t) + message.GetTransId().size() +
                        message.GetCallerContext().size() + message.GetRespFifo().size();
    const std::string fields = Serialised(message).substr(0, base);
    const Message assigned(KyTferMsgFactory::CreateMsg(message.GetMsgType()));
    *assigned = message;
    Require(Serialised(*assigned).substr(0, base) == fields, "an assigned message has the base fields");
    const Message copied(KyTferMsgFactory::CreateMsg(KyTferMsg::TFER_MSG_RESP));
    copied->Copy(&message);
    copied->Copy(nullptr);
    Require(Serialised(*copied).substr(0, base) == fields, "a copied message has the base fields");
}

/// A text in JSON ends at its first NUL, and is missing if it is not valid UTF-8.
void CheckText(const json_t* object, const char* key, const std::string& text) {
    json_t* const expected = json_string(text.c_str());
    const json_t* const found = json_object_get(object, key);
    Require(expected == nullptr ? found == nullptr : json_equal(expected, found) == 1, key);
    json_decref(expected);
}

void CheckJson(const KyTferStatusMsg& record) {
    json_t* const document = json_loads(record.GetJsonStatus().c_str(), 0, nullptr);
    Require(document != nullptr, "the record's JSON can be read");
    const json_t* const status = json_array_get(json_object_get(document, "fileTferStatus"), 0);
    const auto number = [&](const char* key) { return json_integer_value(json_object_get(status, key)); };
    Require(number("status") == static_cast<unsigned int>(record.GetStatus()), "the JSON has the status");
    Require(number("progress") == record.GetPercentComplete(), "the JSON has the progress");
    CheckText(status, "tfername", record.GetXferFileName());
    CheckText(status, "statusMsg", record.GetStatusMsg());
    CheckText(status, "statusStr", KyTferStatusMsg::GetStatusText(record.GetStatus()));
    json_decref(document);
}

void CheckRecord(KyTferStatusMsg& record) {
    const std::string bytes = Serialised(record);
    KyTferStatusMsg copy(record);
    Require(Serialised(copy) == bytes, "a copy is the record");
    KyTferStatusMsg assigned(0);
    assigned = record;
    Require(Serialised(assigned) == bytes, "an assigned record is the record");
    CheckJson(record);
    for (const auto status : {record.GetStatus(), KyTferStatusMsg::TFER_STATUS_NONE,
                              KyTferStatusMsg::TFER_STATUS_INPROGRESS, KyTferStatusMsg::TFER_STATUS_FAIL}) {
        copy.SetStatus(status);
        Require(copy.GetPercentComplete() <= 100, "a percentage is at most 100");
    }
    copy.SetFilePath(record.GetFilePath());
    Require(copy.GetFilePath().back() == '/', "a path that was set ends with a slash");
    Require(copy.GetXferFullFilePath() == copy.GetFilePath() + copy.GetXferFileName(), "the full path");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::SilenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(data, data + size);
    int32_t type = 0;
    std::memcpy(&type, data, std::min(size, sizeof type));
    const Message message = fuzz::MessageIn(input);
    Require((message != nullptr) == (type >= 1 && type <= 6), "every known type is a message, and no other");
    if (!message) return 0;
    if (size < sizeof type) {
        // The bytes are shorter than a type. The factory reads the type with the zeros that follow the bytes.
        Require(message->GetMsgType() == KyTferMsg::TFER_MSG_NONE, "a missing field is 0");
        return 0;
    }
    const std::string bytes = Serialised(*message);
    const Message again = fuzz::MessageIn(bytes);
    Require(again && Serialised(*again) == bytes, "a message survives serialisation");
    Require(bytes.size() <= size + 64, "a message is not larger than its bytes");
    CheckBaseCopies(*message);
    if (auto* const record = dynamic_cast<KyTferStatusMsg*>(message.get())) CheckRecord(*record);
    return 0;
}
