#include "host/KyIpcFrame.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/KyIpcFifoSession.h"
#include "platform/KyIpcMsgUtil.h"

using namespace ky_frame;

// With lengths up to kMaxBody, a length cannot contain a mark, alone or with the bytes around it.
static_assert(kMaxBody >> 16 < kMark[2] && kMaxBody >> 16 < kMark[1] && kMark[0] != 0, "mark within a frame");
static_assert(kMark[0] != kMark[1] && kMark[0] != kMark[2] && kMark[0] != kMark[3], "mark overlaps itself");
static_assert(kEnd != kMark[0] && kEnd != kMark[1] && kEnd != kMark[2] && kEnd != kMark[3],
              "end within a mark");

namespace {

/// The position after the first lead of a mark between `from` and `end`; null if there is none.
const unsigned char* AfterLead(const unsigned char* from, const unsigned char* end) {
    while (end - from >= static_cast<std::ptrdiff_t>(kLead)) {
        const auto* const first = static_cast<const unsigned char*>(
            std::memchr(from, kMark[0], static_cast<size_t>(end - from) - kLead + 1));
        if (first == nullptr) return nullptr;
        if (std::equal(kMark, kMark + kLead, first)) return first + kLead;
        from = first + 1;
    }
    return nullptr;
}

bool AppendStuffed(KyIpcMsgBuffer& frame, const unsigned char* from, const unsigned char* end) {
    bool good = true;
    while (const unsigned char* const after = AfterLead(from, end)) {
        good &= frame.Append(from, static_cast<int>(after - from)) && frame.Append(&kStuffing, 1);
        from = after;
    }
    return good && frame.Append(from, static_cast<int>(end - from));
}

}  // namespace

int ky_frame::Encode(const char* bytes, int count, KyIpcMsgBuffer& frame) {
    if (count > kMaxBody) return KyIpcFifoSession::IPC_TOO_LARGE;
    const auto* const from = reinterpret_cast<const unsigned char*>(bytes);
    frame.Clear();
    const bool good = frame.Append(kMark, sizeof kMark) && KyIpcMsgUtil::PutInteger(&frame, 0) == 0 &&
                      AppendStuffed(frame, from, from + count);
    const int body = frame.GetLength() - static_cast<int>(sizeof kMark + kLengthSize);
    if (!good || !frame.Append(&kEnd, 1)) return KyIpcFifoSession::IPC_NO_MEMORY;
    if (body > kMaxBody) return KyIpcFifoSession::IPC_TOO_LARGE;
    for (size_t i = 0; i < kLengthSize; ++i)
        frame.GetBuf()[sizeof kMark + i] = static_cast<unsigned char>(body >> (8 * i) & 0xFF);
    return KyIpcFifoSession::IPC_OK;
}

size_t KyIpcFrameDecoder::Feed(const unsigned char* bytes, size_t count) {
    if (m_state == WHOLE) Hunt();
    size_t taken = 0;
    while (taken < count && m_state != WHOLE) {
        const size_t plain = TakePlain(bytes + taken, count - taken);
        if (plain == 0) Take(bytes[taken]);
        const size_t step = std::max<size_t>(plain, 1);
        taken += step;
        m_sinceMessage += step;
    }
    if (m_state == WHOLE) m_sinceMessage = 0;
    return taken;
}

size_t KyIpcFrameDecoder::TakeSkipped() {
    return std::exchange(m_skipped, 0);
}

/// Consumes the bytes before the next byte that may start a mark. @return number of these bytes
size_t KyIpcFrameDecoder::TakePlain(const unsigned char* bytes, size_t count) {
    if (m_matched != 0 || m_state == LENGTH || m_state == TRAILER) return 0;
    if (m_state == BODY) count = std::min<size_t>(count, m_rest);
    const void* const first = std::memchr(bytes, kMark[0], count);
    if (first != nullptr) count = static_cast<size_t>(static_cast<const unsigned char*>(first) - bytes);
    if (m_state == BODY) Append(bytes, count);
    return count;
}

void KyIpcFrameDecoder::Take(unsigned char byte) {
    const bool afterLead = m_matched == kLead;
    if (byte != kMark[m_matched]) m_matched = 0;
    if (byte == kMark[m_matched]) ++m_matched;
    if (m_matched == sizeof kMark) {
        Begin();  // also within a frame: the frame's writer has died
    } else if (m_state == LENGTH) {
        TakeLength(byte);
    } else if (m_state == BODY) {
        TakeBody(byte, afterLead);
    } else if (m_state == TRAILER) {
        TakeEnd(byte);
    }
}

void KyIpcFrameDecoder::TakeLength(unsigned char byte) {
    m_rest |= static_cast<unsigned int>(byte) << (8 * m_lengthBytes);
    if (++m_lengthBytes < kLengthSize) return;
    if (m_rest > static_cast<unsigned int>(kMaxBody)) {
        Hunt();
    } else {
        m_state = m_rest == 0 ? TRAILER : BODY;
    }
}

void KyIpcFrameDecoder::TakeBody(unsigned char byte, bool afterLead) {
    if (!afterLead) {
        Append(&byte, 1);
    } else if (byte != kStuffing) {
        Hunt();
    } else if (--m_rest == 0) {
        m_state = TRAILER;
    }
}

void KyIpcFrameDecoder::TakeEnd(unsigned char byte) {
    if (byte == kEnd) {
        m_state = WHOLE;
    } else {
        Hunt();
    }
}

void KyIpcFrameDecoder::Begin() {
    m_skipped += m_sinceMessage - kLead;
    m_sinceMessage = kLead;
    m_state = LENGTH;
    m_matched = 0;
    m_lengthBytes = 0;
    m_rest = 0;
    m_message.Clear();
}

void KyIpcFrameDecoder::Append(const unsigned char* bytes, size_t count) {
    if (!m_message.Append(bytes, static_cast<int>(count))) {
        Hunt();  // out of memory: this message is lost
        return;
    }
    m_rest -= static_cast<unsigned int>(count);
    if (m_rest == 0) m_state = TRAILER;
}

/// Skips bytes until the next mark. Keeps m_matched: a mark may have begun.
void KyIpcFrameDecoder::Hunt() {
    m_state = HUNTING;
    m_message.Clear();
}
