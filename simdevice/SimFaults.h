#ifndef SIMDEVICE_SIMFAULTS_H
#define SIMDEVICE_SIMFAULTS_H

#include <cstdint>
#include <map>
#include <mutex>
#include <utility>

/// The transfers that can have a fault.
enum class SimOperation { FETCH, PUSH, DIRECTORY };

/// The point accesses that can have a fault. REPORT_ID and MODULE_COUNT are the two queries about the report
/// of a point; both are addressed by the point's identifier.
enum class SimAccess { READ, WRITE, REPORT_ID, MODULE_COUNT };

/// The device's answer to a request for a file or the directory.
enum class SimAnswer {
    NORMAL,       ///< "READY", or the name of the listing
    SILENT,       ///< no answer and no size
    READY_TWICE,  ///< the normal answer twice
    NONE_VALUE,   ///< "NONE", without a size
};

/// The faults of one kind of transfer. The default has none; several can be combined.
struct SimFault {
    SimAnswer answer = SimAnswer::NORMAL;  ///< fetch and directory
    unsigned int delayMs = 0;              ///< delays the answer, or the start of a push
    long long sizeDelta = 0;               ///< delivered bytes minus the file's size; zeros fill up
    long long announceSizeDelta = 0;       ///< announced size minus the file's size
    bool announceSize = true;              ///< false: the answer comes without a size
    bool noFile = false;                   ///< the file operation returns true, and no file arrives
    bool stuck = false;                    ///< the file operation hangs until it is aborted or released
    std::uint64_t stuckAfterBytes = 0;  ///< with `stuck`: bytes delivered before; at 0 there is no file yet
    bool garbage = false;               ///< the delivered bytes are noise
    bool answerBeforeReturn = false;    ///< the write of the request waits until the answer is delivered,
                                        ///< at most 5 s; no effect with manual delivery
    bool refuse = false;                ///< the file operation returns false at once
};

/// The faults that a device has been told to show. Any thread may call any operation; none blocks.
class SimFaults {
public:
    void Set(SimOperation operation, const SimFault& fault) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_operations[operation] = fault;
    }

    SimFault Of(SimOperation operation) const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_operations.find(operation);
        return found == m_operations.end() ? SimFault() : found->second;
    }

    /// Makes accesses of a point fail with the status, which is not 0.
    void FailPoint(SimAccess access, unsigned short pointId, int status) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_points[{access, pointId}] = status;
    }

    /// @return the status of an access; 0 if it succeeds
    int StatusOf(SimAccess access, unsigned short pointId) const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_points.find({access, pointId});
        return found == m_points.end() ? 0 : found->second;
    }

    void Clear() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_operations.clear();
        m_points.clear();
    }

private:
    mutable std::mutex m_mutex;  // guards all below; a leaf
    std::map<SimOperation, SimFault> m_operations;
    std::map<std::pair<SimAccess, unsigned short>, int> m_points;  // status by access and point
};

#endif
