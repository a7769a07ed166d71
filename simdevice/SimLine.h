#ifndef SIMDEVICE_SIMLINE_H
#define SIMDEVICE_SIMLINE_H

#include <atomic>
#include <cstdint>

#include "simdevice/SimAbort.h"
#include "simdevice/SimFault.h"

struct SimSource;

/// The line between device and card: it copies files at its rate.
///
/// Any thread may call any operation, several may copy at once; each has the full rate.
class SimLine {
public:
    /// @param bytesPerSecond  0 for unlimited
    explicit SimLine(std::uint64_t bytesPerSecond) : m_rate(bytesPerSecond) {}

    void SetRate(std::uint64_t bytesPerSecond) { m_rate = bytesPerSecond; }

    /// Copies `source` chunk by chunk to the descriptor `target`, damaged as `fault` says, and returns when
    /// the last byte's time has passed.
    ///
    /// @param call  the file call that copies; its end ends the copying
    /// @return false if the call has ended or a file operation failed; what had arrived by then stays
    bool Copy(const SimSource& source, int target, const SimFault& fault, const SimAbort::Call& call) const;

private:
    bool MoveChunk(const SimSource& source, int target, const SimFault& fault, std::uint64_t offset,
                   std::uint64_t end, std::uint64_t& moved) const;
    bool Pace(std::uint64_t bytes, std::uint64_t& owedMicroseconds, const SimAbort::Call& call) const;

    std::atomic<std::uint64_t> m_rate;
};

#endif
