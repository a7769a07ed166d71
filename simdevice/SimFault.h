#ifndef SIMDEVICE_SIMFAULT_H
#define SIMDEVICE_SIMFAULT_H

#include <cstdint>

/// The transfers that can be told to go wrong.
enum class SimOperation { FETCH, PUSH, DIRECTORY };

/// The point accesses that can be told to go wrong. Both questions about the report of a point, which one it
/// is and how many modules it has, are addressed by the point's identifier.
enum class SimAccess { READ, WRITE, REPORT_ID, MODULE_COUNT };

/// What the device says when the card has requested a file or the directory.
enum class SimAnswer {
    NORMAL,       ///< "READY", or the name of the listing
    SILENT,       ///< nothing, no size either
    READY_TWICE,  ///< the normal word two times
    NONE_VALUE,   ///< "NONE", without a size
};

/// How one kind of transfer goes wrong. A fresh one is a transfer that goes right; several faults combine.
struct SimFault {
    SimAnswer answer = SimAnswer::NORMAL;  ///< fetch and directory
    unsigned int delayMs = 0;              ///< the answer, or the begin of a push, comes late by so much
    long long sizeDelta = 0;               ///< bytes delivered less the bytes there are; zeros fill up
    long long announceSizeDelta = 0;       ///< size announced less the real one
    bool announceSize = true;              ///< false: the word comes without a size
    bool noFile = false;                   ///< the file operation says true, and no file arrives
    bool stuck = false;                    ///< the file operation hangs until it is aborted
    std::uint64_t stuckAfterBytes = 0;  ///< with `stuck`: bytes delivered before; at 0 no file is there yet
    bool garbage = false;               ///< the delivered bytes are noise
    bool answerBeforeReturn = false;    ///< the request's write waits, at most 5 s, for the delivery of
                                        ///< the answer; not with manual delivery
    bool refuse = false;                ///< the file operation says false at once
};

#endif
