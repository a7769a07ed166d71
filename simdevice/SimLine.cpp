#include "simdevice/SimLine.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "simdevice/SimFiles.h"

namespace {

using Chunk = std::array<char, 65536>;

std::uint64_t BytesToDeliver(std::uint64_t size, long long delta) {
    if (delta >= 0) return size + static_cast<std::uint64_t>(delta);
    const std::uint64_t missing = 0U - static_cast<std::uint64_t>(delta);
    return size > missing ? size - missing : 0;
}

bool WriteAll(int target, const char* bytes, std::size_t count) {
    while (count > 0) {
        const ssize_t written = write(target, bytes, count);
        if (written <= 0) return false;
        bytes += written;
        count -= static_cast<std::size_t>(written);
    }
    return true;
}

void MakeNoise(char* bytes, std::size_t count, std::uint64_t offset) {
    for (std::size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<char>(((offset + i) * 2654435761U >> 13) & 0xFF);
}

}  // namespace

bool SimLine::Copy(const SimSource& source, int target, const SimFault& fault,
                   const SimAbort::Call& call) const {
    const std::uint64_t total = BytesToDeliver(source.size, fault.sizeDelta);
    const std::uint64_t end = fault.stuck ? std::min(total, fault.stuckAfterBytes) : total;
    std::uint64_t owedMicroseconds = 0;
    std::uint64_t offset = 0;
    while (offset < end) {
        std::uint64_t moved = 0;
        if (!MoveChunk(source, target, fault, offset, end, moved)) return false;
        offset += moved;
        if (!Pace(moved, owedMicroseconds, call)) return false;
    }
    if (fault.stuck) call.WaitEnded();
    return call.Sleep(owedMicroseconds);
}

// A chunk is at most what the line carries in 10 ms. Bytes behind the end of the source are zeros.
bool SimLine::MoveChunk(const SimSource& source, int target, const SimFault& fault, std::uint64_t offset,
                        std::uint64_t end, std::uint64_t& moved) const {
    Chunk chunk;
    const std::uint64_t rate = m_rate;
    const std::uint64_t most =
        rate == 0 ? chunk.size() : std::clamp<std::uint64_t>(rate / 100, 1, chunk.size());
    const bool inside = offset < source.size;
    auto count =
        static_cast<std::size_t>(std::min(most, (inside ? std::min(source.size, end) : end) - offset));
    if (inside) {
        const ssize_t read = source.ReadAt(offset, chunk.data(), count);
        if (read <= 0) return false;  // also a file that has become shorter
        count = static_cast<std::size_t>(read);
    } else {
        std::fill_n(chunk.data(), count, '\0');
    }
    if (fault.garbage) MakeNoise(chunk.data(), count, offset);
    moved = count;
    return WriteAll(target, chunk.data(), count);
}

// Sleeps out what the bytes cost. Less than 10 ms is left owing, because a sleep costs time itself.
bool SimLine::Pace(std::uint64_t bytes, std::uint64_t& owedMicroseconds, const SimAbort::Call& call) const {
    const std::uint64_t rate = m_rate;
    if (rate == 0) return !call.Ended();
    owedMicroseconds += bytes * 1000000 / rate;
    if (owedMicroseconds < 10000) return !call.Ended();
    return call.Sleep(std::exchange(owedMicroseconds, 0));
}
