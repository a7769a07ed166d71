#include "platform/KyIpcMsgBuffer.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kTail = 4;               // zero bytes after the data
constexpr long long kMaxHint = 65536;  // bytes reserved for a larger hint

}  // namespace

KyIpcMsgBuffer::KyIpcMsgBuffer(int sizeHint)
    : m_sizeHint(sizeHint), m_bytes(m_tail), m_length(0), m_capacity(0), m_position(0), m_tail{} {}

KyIpcMsgBuffer::~KyIpcMsgBuffer() {
    if (m_bytes != m_tail) std::free(m_bytes);
}

unsigned char* KyIpcMsgBuffer::GetBuf() const {
    return m_bytes;
}

int KyIpcMsgBuffer::GetLength() const {
    return m_length;
}

bool KyIpcMsgBuffer::Append(const unsigned char* bytes, int count) {
    if (count < 0) return false;
    if (count == 0) return true;
    if (!Reserve(static_cast<long long>(m_length) + count)) return false;
    std::memcpy(m_bytes + m_length, bytes, static_cast<size_t>(count));
    m_length += count;
    std::memset(m_bytes + m_length, 0, kTail);
    return true;
}

void KyIpcMsgBuffer::Clear() {
    m_length = 0;
    m_position = 0;
    std::memset(m_bytes, 0, kTail);
}

// Makes room for a message of `total` bytes. Returns false, with nothing changed, if memory has run out.
bool KyIpcMsgBuffer::Reserve(long long total) {
    if (total > INT_MAX) return false;
    if (total <= m_capacity) return true;
    void* const old = m_bytes == m_tail ? nullptr : m_bytes;
    long long room = std::min<long long>(
        std::max({total, 2 * m_capacity, std::min<long long>(m_sizeHint, kMaxHint)}), INT_MAX);
    void* grown = std::realloc(old, static_cast<size_t>(room + kTail));
    if (grown == nullptr && room > total) {
        room = total;
        grown = std::realloc(old, static_cast<size_t>(room + kTail));
    }
    if (grown == nullptr) return false;
    m_bytes = static_cast<unsigned char*>(grown);
    m_capacity = room;
    std::memset(m_bytes + m_length, 0, kTail);
    return true;
}
