#ifndef SIMDEVICE_SIMPOINTSTORE_H
#define SIMDEVICE_SIMPOINTSTORE_H

#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "simdevice/SimChangeQueue.h"
#include "simdevice/SimDeviceConfig.h"

/// The points of the device. Every write of one, the card's and the device's own, is posted as a change, in
/// the order of the writes.
///
/// A monitoring-agent point has a value per module index; every other point has one, whatever index it is
/// addressed with. Any thread may call any operation; nothing blocks.
class SimPointStore {
public:
    /// @param changes  takes the changes; must outlive the store
    SimPointStore(const SimDeviceConfig& config, SimChangeQueue& changes);

    /// Reads a point of the type of `value`. @return SIM_OK, or SIM_NO_POINT with `value` as it was
    template <typename Value>
    int Read(unsigned short pointId, unsigned short mmIdx, Value& value) const;

    /// A write of the card. @return SIM_OK, SIM_NO_POINT, SIM_READ_ONLY or SIM_BAD_VALUE
    int Write(unsigned short pointId, unsigned short mmIdx, const SimValue& value);

    /// A change that the device makes; a point that it does not have comes into being, for the card to read.
    void Change(unsigned short pointId, unsigned short mmIdx, const SimValue& value);

private:
    struct Point {
        SimValue value;
        bool cardWrites = false;
    };
    using Address = std::pair<unsigned short, unsigned short>;

    static Address AddressOf(unsigned short pointId, unsigned short mmIdx);
    void AddTransferPoints(const SimDeviceConfig& config);

    mutable std::mutex
        m_mutex;  // guards the points; taken before the queue's, so that changes keep the order
    std::map<Address, Point> m_points;
    SimChangeQueue& m_changes;
};

#endif
