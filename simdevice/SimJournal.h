#ifndef SIMDEVICE_SIMJOURNAL_H
#define SIMDEVICE_SIMJOURNAL_H

#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

/// The proxy operations, as the journal names them.
enum class SimCallKind {
    GET_STRING,
    GET_UINT32,
    SET_STRING,
    SET_UINT32,
    MODULE_COUNT,
    REPORT_ID,
    GET_FILE,
    PUT_FILE
};

/// One call that the card has made.
struct SimCall {
    SimCallKind operation = SimCallKind::GET_STRING;
    unsigned int pointId = 0;   ///< the point, or the report of MODULE_COUNT; 0 for files
    std::string value;          ///< written or read value, numbers in decimal; of a file its name, of a push
                                ///< directory, name and transfer name with " " between
    unsigned int timeout = 0;   ///< of writes, as passed
    unsigned short device = 0;  ///< as passed
    unsigned short mmIdx = 0;   ///< as passed; 0 where there is none
    int status = 0;             ///< returned status; of a file 0 if the operation returned true
    bool finished = false;      ///< false while the call has not returned; then `status` means nothing
};

/// The calls that the card has made, in the order in which they began.
///
/// Keeps the newest 200,000, or none at all if it was not asked for. Any thread may call any operation;
/// nothing blocks.
class SimJournal {
public:
    explicit SimJournal(bool keep);

    /// Enters a call that begins. @return its number, for End
    std::size_t Begin(const SimCall& call);

    /// Completes the entry `number`, unless it has been cleared or pushed out meanwhile.
    void End(std::size_t number, int status, const std::string& value);

    std::vector<SimCall> Calls() const;
    void Clear();

private:
    const bool m_keep;

    mutable std::mutex m_mutex;  // guards all below; a leaf
    std::deque<SimCall> m_calls;
    std::size_t m_first = 0;  // number of the oldest kept entry
};

#endif
