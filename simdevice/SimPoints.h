#ifndef SIMDEVICE_SIMPOINTS_H
#define SIMDEVICE_SIMPOINTS_H

/// Identifiers of the points that the simulated device has.
namespace sim_point {

constexpr unsigned short MON_AGENT_INFO = 6459;        ///< string, one per module index: the card's MAC text
constexpr unsigned short SERVER_MIN_VERSION = 8596;    ///< number, the card reads it
constexpr unsigned short SERVER_MAX_VERSION = 8597;    ///< number, the card reads it
constexpr unsigned short CLIENT_MIN_VERSION = 8598;    ///< number, the card writes it
constexpr unsigned short CLIENT_MAX_VERSION = 8599;    ///< number, the card writes it
constexpr unsigned short SERVER_MAX_FILE_SIZE = 8600;  ///< number, bytes, the card reads it
constexpr unsigned short CLIENT_MAX_FILE_SIZE = 8601;  ///< number, bytes, the card writes it
constexpr unsigned short CLIENT_FILE_REQ = 8602;       ///< string, both sides: the request conversation
constexpr unsigned short XFER_FILE_NAME = 8603;        ///< string, the card writes it: name of a pushed file
constexpr unsigned short XFER_FILE_SIZE = 8604;        ///< number, bytes, both sides
constexpr unsigned short DMP_SUPPORTED = 8631;         ///< number, 16 bits wide in a change report
constexpr unsigned short MAX_USB_SPEED = 8632;         ///< number

}  // namespace sim_point

/// What the point operations of the simulated device return, and what the journal holds of its file
/// operations. A status that a test has asked for stands beside these.
enum SimStatus {
    SIM_OK = 0,
    SIM_NO_DEVICE = 1,   ///< the device identifier is not this device's
    SIM_NO_POINT = 2,    ///< the device has no such point at this address
    SIM_READ_ONLY = 3,   ///< the card may not write this point
    SIM_BAD_VALUE = 4,   ///< the value is missing or longer than a string point holds
    SIM_NO_FILE = 5,     ///< the file does not exist, or its name or size is not acceptable
    SIM_REFUSED = 6,     ///< a fault made the device refuse the transfer
    SIM_ABORTED = 7,     ///< the device or the file call has been aborted
    SIM_IO_FAILURE = 8,  ///< the file could not be read or written
    SIM_OUT_OF_MEMORY = 9
};

#endif
