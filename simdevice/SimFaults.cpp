#include "simdevice/SimFaults.h"

void SimFaults::Set(SimOperation operation, const SimFault& fault) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_operations[operation] = fault;
}

SimFault SimFaults::Of(SimOperation operation) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_operations.find(operation);
    return found == m_operations.end() ? SimFault() : found->second;
}

void SimFaults::FailPoint(SimAccess access, unsigned short pointId, int status, int times, int skip) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    PointFault& fault = m_points[{access, pointId}];
    fault.status = status;
    fault.times = times;
    fault.skip = skip;
}

void SimFaults::SlowPoint(SimAccess access, unsigned short pointId, unsigned int delayMs) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_points[{access, pointId}].delayMs = delayMs;
}

std::pair<unsigned int, int> SimFaults::TakeAccess(SimAccess access, unsigned short pointId) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_points.find({access, pointId});
    if (found == m_points.end()) return {0, 0};
    PointFault& fault = found->second;
    if (fault.skip > 0) {
        --fault.skip;
        return {fault.delayMs, 0};
    }
    if (fault.times == 0) return {fault.delayMs, 0};
    if (fault.times > 0) --fault.times;
    return {fault.delayMs, fault.status};
}

void SimFaults::Clear() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_operations.clear();
    m_points.clear();
}
