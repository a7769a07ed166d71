#include "simdevice/SimPoints.h"

SimPoints::SimPoints(const SimDeviceConfig& config, SimChangeQueue& changes) : m_changes(changes) {
    m_points[{sim_point::DMP_SUPPORTED, 0}] = {config.dmpSupported, false};
    m_points[{sim_point::MAX_USB_SPEED, 0}] = {config.usbSpeed, false};
    if (config.cardIndex >= 1 && config.cardIndex <= config.modules)
        m_points[{sim_point::MON_AGENT_INFO, config.cardIndex}] = {config.mac, false};
    if (config.transport == SimTransport::SORREL_485) AddTransferPoints(config);
}

void SimPoints::AddTransferPoints(const SimDeviceConfig& config) {
    m_points[{sim_point::SERVER_MIN_VERSION, 0}] = {config.minVersion, false};
    m_points[{sim_point::SERVER_MAX_VERSION, 0}] = {config.maxVersion, false};
    m_points[{sim_point::SERVER_MAX_FILE_SIZE, 0}] = {config.maxFileSize, false};
    for (const unsigned short pointId : {sim_point::CLIENT_MIN_VERSION, sim_point::CLIENT_MAX_VERSION,
                                         sim_point::CLIENT_MAX_FILE_SIZE, sim_point::XFER_FILE_SIZE})
        m_points[{pointId, 0}] = {0U, true};
    for (const unsigned short pointId : {sim_point::CLIENT_FILE_REQ, sim_point::XFER_FILE_NAME})
        m_points[{pointId, 0}] = {std::string(), true};
}

template <typename Value>
int SimPoints::Read(unsigned short pointId, unsigned short mmIdx, Value& value) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_points.find(AddressOf(pointId, mmIdx));
    if (found == m_points.end() || !std::holds_alternative<Value>(found->second.value)) return SIM_NO_POINT;
    value = std::get<Value>(found->second.value);
    return SIM_OK;
}

template int SimPoints::Read(unsigned short, unsigned short, std::string&) const;
template int SimPoints::Read(unsigned short, unsigned short, unsigned int&) const;

int SimPoints::Write(unsigned short pointId, unsigned short mmIdx, const SimValue& value) {
    constexpr std::size_t kLongestText = 256;
    const std::string* text = std::get_if<std::string>(&value);
    if (text != nullptr && text->size() > kLongestText) return SIM_BAD_VALUE;
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_points.find(AddressOf(pointId, mmIdx));
    if (found == m_points.end() || found->second.value.index() != value.index()) return SIM_NO_POINT;
    if (!found->second.cardWrites) return SIM_READ_ONLY;
    found->second.value = value;
    m_changes.Post({pointId, mmIdx, value});
    return SIM_OK;
}

void SimPoints::Change(unsigned short pointId, unsigned short mmIdx, const SimValue& value) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_points[AddressOf(pointId, mmIdx)].value = value;
    m_changes.Post({pointId, mmIdx, value});
}

SimPoints::Address SimPoints::AddressOf(unsigned short pointId, unsigned short mmIdx) {
    return {pointId, pointId == sim_point::MON_AGENT_INFO ? mmIdx : static_cast<unsigned short>(0)};
}
