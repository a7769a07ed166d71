#ifndef SIMDEVICE_SIMPOINTS_H
#define SIMDEVICE_SIMPOINTS_H

#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "simdevice/SimChanges.h"
#include "simdevice/SimDeviceBuilder.h"

namespace sim_point {

/// Identifiers of the points of the simulated device.
enum SimPointId : unsigned short {
    MON_AGENT_INFO = 6459,        ///< string, one per module index: MAC text
    SERVER_MIN_VERSION = 8596,    ///< number, the card reads it
    SERVER_MAX_VERSION = 8597,    ///< number, the card reads it
    CLIENT_MIN_VERSION = 8598,    ///< number, the card writes it
    CLIENT_MAX_VERSION = 8599,    ///< number, the card writes it
    SERVER_MAX_FILE_SIZE = 8600,  ///< number, bytes, the card reads it
    CLIENT_MAX_FILE_SIZE = 8601,  ///< number, bytes, the card writes it
    CLIENT_FILE_REQ = 8602,       ///< string, both sides write it: requests and answers
    XFER_FILE_NAME = 8603,        ///< string, the card writes it: name of a pushed file
    XFER_FILE_SIZE = 8604,        ///< number, bytes, both sides write it
    DMP_SUPPORTED = 8631,         ///< number, 16 bits wide in a change report
    MAX_USB_SPEED = 8632          ///< number
};

}  // namespace sim_point

/// Status of a point access. A failure that SimDevice::FailPoint has set can have any other value.
enum SimStatus {
    SIM_OK = 0,
    SIM_NO_DEVICE = 1,  ///< the identifier is not this device's
    SIM_NO_POINT = 2,   ///< the device has no such point at this address
    SIM_READ_ONLY = 3,  ///< the card may not write this point
    SIM_BAD_VALUE = 4,  ///< the value is missing, or longer than a string point holds
    SIM_OUT_OF_MEMORY = 9
};

/// The points of the device. Every write, by the card or by the device, is posted as a change, in the order
/// of the writes.
///
/// A monitoring-agent point has a value per module index; every other point has one value for all indexes.
/// Any thread may call any operation; none blocks.
class SimPoints {
public:
    /// @param changes  receives the changes; must outlive this object
    SimPoints(const SimDeviceConfig& config, SimChangeQueue& changes);

    /// Reads a point of the type of `value`. @return SIM_OK, or SIM_NO_POINT and `value` is unchanged
    template <typename Value>
    int Read(unsigned short pointId, unsigned short mmIdx, Value& value) const;

    /// Writes a point for the card. @return SIM_OK, SIM_NO_POINT, SIM_READ_ONLY or SIM_BAD_VALUE
    int Write(unsigned short pointId, unsigned short mmIdx, const SimValue& value);

    /// Writes a point for the device. Creates a point that does not exist; the card can only read it.
    void Change(unsigned short pointId, unsigned short mmIdx, const SimValue& value);

private:
    struct Point {
        SimValue value;
        bool cardWrites = false;
    };
    using Address = std::pair<unsigned short, unsigned short>;

    static Address AddressOf(unsigned short pointId, unsigned short mmIdx);
    void AddTransferPoints(const SimDeviceConfig& config);

    // Guards the points. Held while a change is posted: changes keep the order of the writes.
    mutable std::mutex m_mutex;
    std::map<Address, Point> m_points;
    SimChangeQueue& m_changes;
};

#endif
