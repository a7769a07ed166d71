#include "host/KyIpcFrame.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/KyIpcFifoSession.h"
#include "platform/KyIpcMsgUtil.h"

using namespace ky_frame;

// With lengths below this, neither a length nor the end of one and the start of a body can look like a mark.
static_assert(MOST_BODY >> 16 < MARK[2] && MOST_BODY >> 16 < MARK[1] && MARK[0] != 0, "mark within a frame");
static_assert(MARK[0] != MARK[1] && MARK[0] != MARK[2] && MARK[0] != MARK[3], "mark overlaps itself");
static_assert(END != MARK[0] && END != MARK[1] && END != MARK[2] && END != MARK[3], "end within a mark");

namespace {

/// The place behind the first lead of a mark between `from` and `end`; null if there is none.
const unsigned char* BehindLead(const unsigned char* from, const unsigned char* end) {
    while (end - from >= static_cast<std::ptrdiff_t>(LEAD)) {
        const auto* const first = static_cast<const unsigned char*>(
            std::memchr(from, MARK[0], static_cast<size_t>(end - from) - LEAD + 1));
        if (first == nullptr) return nullptr;
        if (std::equal(MARK, MARK + LEAD, first)) return first + LEAD;
        from = first + 1;
    }
    return nullptr;
}

bool AppendStuffed(KyIpcMsgBuffer& frame, const unsigned char* from, const unsigned char* end) {
    bool good = true;
    while (const unsigned char* const behind = BehindLead(from, end)) {
        good &= frame.Append(from, static_cast<int>(behind - from)) && frame.Append(&STUFFING, 1);
        from = behind;
    }
    return good && frame.Append(from, static_cast<int>(end - from));
}

}  // namespace

int ky_frame::Encode(const char* bytes, int count, KyIpcMsgBuffer& frame) {
    if (count > MOST_BODY) return KyIpcFifoSession::IPC_TOO_LARGE;
    const auto* const from = reinterpret_cast<const unsigned char*>(bytes);
    frame.Clear();
    const bool good = frame.Append(MARK, sizeof MARK) && KyIpcMsgUtil::PutInteger(&frame, 0) == 0 &&
                      AppendStuffed(frame, from, from + count);
    const int body = frame.GetLength() - static_cast<int>(sizeof MARK + LENGTH_SIZE);
    if (!good || !frame.Append(&END, 1)) return KyIpcFifoSession::IPC_NO_MEMORY;
    if (body > MOST_BODY) return KyIpcFifoSession::IPC_TOO_LARGE;
    for (size_t i = 0; i < LENGTH_SIZE; ++i)
        frame.GetBuf()[sizeof MARK + i] = static_cast<unsigned char>(body >> (8 * i) & 0xFF);
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

/// Takes what comes before the next byte that may be part of a mark. @return how many bytes that were
size_t KyIpcFrameDecoder::TakePlain(const unsigned char* bytes, size_t count) {
    if (m_matched != 0 || m_state == LENGTH || m_state == TRAILER) return 0;
    if (m_state == BODY) count = std::min<size_t>(count, m_rest);
    const void* const first = std::memchr(bytes, MARK[0], count);
    if (first != nullptr) count = static_cast<size_t>(static_cast<const unsigned char*>(first) - bytes);
    if (m_state == BODY) Append(bytes, count);
    return count;
}

void KyIpcFrameDecoder::Take(unsigned char byte) {
    const bool behindLead = m_matched == LEAD;
    if (byte != MARK[m_matched]) m_matched = 0;
    if (byte == MARK[m_matched]) ++m_matched;
    if (m_matched == sizeof MARK) {
        Begin();  // whatever was under way: its writer has not come to its end
    } else if (m_state == LENGTH) {
        TakeLength(byte);
    } else if (m_state == BODY) {
        TakeBody(byte, behindLead);
    } else if (m_state == TRAILER) {
        TakeEnd(byte);
    }
}

void KyIpcFrameDecoder::TakeLength(unsigned char byte) {
    m_rest |= static_cast<unsigned int>(byte) << (8 * m_lengthBytes);
    if (++m_lengthBytes < LENGTH_SIZE) return;
    if (m_rest > static_cast<unsigned int>(MOST_BODY)) {
        Hunt();
    } else {
        m_state = m_rest == 0 ? TRAILER : BODY;
    }
}

void KyIpcFrameDecoder::TakeBody(unsigned char byte, bool behindLead) {
    if (!behindLead) {
        Append(&byte, 1);
    } else if (byte != STUFFING) {
        Hunt();
    } else if (--m_rest == 0) {
        m_state = TRAILER;
    }
}

void KyIpcFrameDecoder::TakeEnd(unsigned char byte) {
    if (byte == END) {
        m_state = WHOLE;
    } else {
        Hunt();
    }
}

void KyIpcFrameDecoder::Begin() {
    m_skipped += m_sinceMessage - LEAD;
    m_sinceMessage = LEAD;
    m_state = LENGTH;
    m_matched = 0;
    m_lengthBytes = 0;
    m_rest = 0;
    m_message.Clear();
}

void KyIpcFrameDecoder::Append(const unsigned char* bytes, size_t count) {
    if (!m_message.Append(bytes, static_cast<int>(count))) {
        Hunt();  // no memory for it: this message is lost
        return;
    }
    m_rest -= static_cast<unsigned int>(count);
    if (m_rest == 0) m_state = TRAILER;
}

/// Goes to where only a mark counts. How much of one has been seen stays.
void KyIpcFrameDecoder::Hunt() {
    m_state = HUNTING;
    m_message.Clear();
}
