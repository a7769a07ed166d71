#include "platform/KyIpcMsgUtil.h"

#include <climits>

#include "platform/KyIpcMsgBuffer.h"

namespace {

constexpr int kIntegerSize = 4;
constexpr int kFailed = -1;

}  // namespace

int KyIpcMsgUtil::PutInteger(KyIpcMsgBuffer* buffer, int value) {
    const auto bits = static_cast<unsigned int>(value);
    unsigned char bytes[kIntegerSize];
    for (int i = 0; i < kIntegerSize; ++i)
        bytes[i] = static_cast<unsigned char>(bits >> (8 * i) & 0xFF);
    return buffer->Append(bytes, kIntegerSize) ? 0 : kFailed;
}

int KyIpcMsgUtil::PutStringParam(KyIpcMsgBuffer* buffer, const std::string& value) {
    if (value.size() > INT_MAX) return kFailed;
    const int count = static_cast<int>(value.size());
    // Reserves room for both fields first: a failure must not leave a length without its bytes.
    if (!buffer->Reserve(static_cast<long long>(buffer->m_length) + kIntegerSize + count)) return kFailed;
    PutInteger(buffer, count);
    return buffer->Append(reinterpret_cast<const unsigned char*>(value.data()), count) ? 0 : kFailed;
}

int KyIpcMsgUtil::ExtractInteger(KyIpcMsgBuffer* buffer) {
    if (buffer->m_length - buffer->m_position < kIntegerSize) {
        buffer->m_position = buffer->m_length;
        return 0;
    }
    const int value = ExtractInteger(buffer->m_bytes + buffer->m_position);
    buffer->m_position += kIntegerSize;
    return value;
}

int KyIpcMsgUtil::ExtractStringParam(KyIpcMsgBuffer* buffer, std::string& value) {
    value.clear();
    if (buffer->m_length - buffer->m_position < kIntegerSize) {
        buffer->m_position = buffer->m_length;
        return kFailed;
    }
    const int count = ExtractInteger(buffer);
    const int start = buffer->m_position;
    buffer->m_position = buffer->m_length;  // unless the string is complete
    if (count < 0 || count > buffer->m_length - start) return kFailed;
    value.assign(reinterpret_cast<const char*>(buffer->m_bytes + start), static_cast<size_t>(count));
    buffer->m_position = start + count;
    return 0;
}

int KyIpcMsgUtil::ExtractInteger(const unsigned char* bytes) {
    unsigned int bits = 0;
    for (int i = 0; i < kIntegerSize; ++i)
        bits |= static_cast<unsigned int>(bytes[i]) << (8 * i);
    return static_cast<int>(bits);
}
