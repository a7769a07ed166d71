#include "platform/KyIpcMsgUtil.h"

#include <climits>

#include "platform/KyIpcMsgBuffer.h"

namespace {

constexpr int INTEGER_SIZE = 4;
constexpr int FAILED = -1;

}  // namespace

int KyIpcMsgUtil::PutInteger(KyIpcMsgBuffer* buffer, int value) {
    const auto bits = static_cast<unsigned int>(value);
    unsigned char bytes[INTEGER_SIZE];
    for (int i = 0; i < INTEGER_SIZE; ++i)
        bytes[i] = static_cast<unsigned char>(bits >> (8 * i) & 0xFF);
    return buffer->Append(bytes, INTEGER_SIZE) ? 0 : FAILED;
}

int KyIpcMsgUtil::PutStringParam(KyIpcMsgBuffer* buffer, const std::string& value) {
    if (value.size() > INT_MAX) return FAILED;
    const int count = static_cast<int>(value.size());
    // Room for both pieces first: a length without its bytes must not be left behind.
    if (!buffer->Reserve(static_cast<long long>(buffer->m_length) + INTEGER_SIZE + count)) return FAILED;
    PutInteger(buffer, count);
    return buffer->Append(reinterpret_cast<const unsigned char*>(value.data()), count) ? 0 : FAILED;
}

int KyIpcMsgUtil::ExtractInteger(KyIpcMsgBuffer* buffer) {
    if (buffer->m_length - buffer->m_position < INTEGER_SIZE) {
        buffer->m_position = buffer->m_length;
        return 0;
    }
    const int value = ExtractInteger(buffer->m_bytes + buffer->m_position);
    buffer->m_position += INTEGER_SIZE;
    return value;
}

int KyIpcMsgUtil::ExtractStringParam(KyIpcMsgBuffer* buffer, std::string& value) {
    value.clear();
    if (buffer->m_length - buffer->m_position < INTEGER_SIZE) {
        buffer->m_position = buffer->m_length;
        return FAILED;
    }
    const int count = ExtractInteger(buffer);
    const int start = buffer->m_position;
    buffer->m_position = buffer->m_length;  // where it stays unless the whole string can be handed out
    if (count < 0 || count > buffer->m_length - start) return FAILED;
    value.assign(reinterpret_cast<const char*>(buffer->m_bytes + start), static_cast<size_t>(count));
    buffer->m_position = start + count;
    return 0;
}

int KyIpcMsgUtil::ExtractInteger(const unsigned char* bytes) {
    unsigned int bits = 0;
    for (int i = 0; i < INTEGER_SIZE; ++i)
        bits |= static_cast<unsigned int>(bytes[i]) << (8 * i);
    return static_cast<int>(bits);
}
